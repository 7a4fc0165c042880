#!/usr/bin/env bash
# Builds the benchmarks (Release, build/bench) and runs them, then prints each
# of our figures against its peer from the same run:
#   parser bytes/s over ALSA's encoder (> 1 means ahead), per stream;
#   FIFO put+get CPU time over memcpy of the same bytes (goal: < 2 for blocks),
#   and over two memcpys (in and out), the floor for any put+get.
# Extra arguments go to the benchmark binary (e.g. --benchmark_repetitions=5).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

cmake -S . -B build/bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DAMBREL_BENCHMARKS=ON >/dev/null
cmake --build build/bench --target ambrel_bench_core

out=build/bench/ambrel_bench_core.json
build/bench/bench/ambrel_bench_core --benchmark_out="$out" --benchmark_out_format=json "$@"

python3 - "$out" <<'PY'
import json, sys
runs = json.load(open(sys.argv[1]))["benchmarks"]
runs = [r for r in runs if r.get("run_type", "iteration") == "iteration" or r.get("aggregate_name") == "median"]
by = {}
for r in runs:
    by[r["run_name"] if "run_name" in r else r["name"]] = r
print()
print("ratios (same run)")
for stream, arg in (("running_status", 0), ("sysex_heavy", 1), ("realtime_interleaved", 2)):
    ours, alsa = by[f"BM_Parser_Ambrel/{arg}"], by[f"BM_Parser_Alsa/{arg}"]
    print(f"  parser {stream:22s} ambrel {ours['bytes_per_second']/1e6:8.1f} MB/s   alsa {alsa['bytes_per_second']/1e6:8.1f} MB/s   ambrel/alsa {ours['bytes_per_second']/alsa['bytes_per_second']:5.2f}x")
for chunk in (3, 4096):
    fifo, mem, two = by[f"BM_Fifo_PutGet/{chunk}"], by[f"BM_Fifo_Memcpy/{chunk}"], by[f"BM_Fifo_TwoMemcpy/{chunk}"]
    print(f"  fifo put+get {chunk:5d} B   {fifo['cpu_time']:7.1f} ns   memcpy {mem['cpu_time']:7.1f} ns   fifo/memcpy {fifo['cpu_time']/mem['cpu_time']:5.2f}x"
          f"   two memcpys {two['cpu_time']:7.1f} ns   fifo/two {fifo['cpu_time']/two['cpu_time']:5.2f}x")
PY
