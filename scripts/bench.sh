#!/usr/bin/env bash
# Builds the benchmarks (Release, build/bench) and runs them, then prints each
# of our figures against its peer from the same run:
#   parser bytes/s over ALSA's encoder (> 1 means ahead), per stream;
#   FIFO put+get CPU time over memcpy of the same bytes (goal: < 2 for blocks),
#   and over two memcpys (in and out), the floor for any put+get;
#   the data paths of the shipped ambrel.sys (build/windows, built here) over
#   the same paths of the host build, both in one run of the datapath
#   benchmark (> 1 means the image takes longer).
# Extra arguments go to the benchmark binaries (e.g. --benchmark_repetitions=5).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

cmake -S . -B build/bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DAMBREL_BENCHMARKS=ON >/dev/null
cmake --build build/bench --target ambrel_bench_core ambrel_bench_datapath
cmake -S . -B build/windows -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake >/dev/null
cmake --build build/windows

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

image_out=build/bench/ambrel_bench_datapath.json
build/bench/bench/ambrel_bench_datapath --ambrel-driver="$PWD/build/windows/ambrel.sys" \
    --benchmark_filter=Ambrel --benchmark_out="$image_out" --benchmark_out_format=json "$@"
python3 - "$image_out" <<'PY'
import json, sys
runs = json.load(open(sys.argv[1]))["benchmarks"]
# One figure per case: the median when repetitions were asked for, else the run.
by = {}
for r in runs:
    if r.get("run_type", "iteration") == "aggregate" and r.get("aggregate_name") != "median":
        continue
    by[r.get("run_name", r["name"])] = r
print()
print("the shipped image over the host build (same run; real time per round, latency p50/p99)")
for name, r in sorted(by.items()):
    if "_AmbrelImage" not in name:
        continue
    host = by.get(name.replace("_AmbrelImage", "_Ambrel"))
    if host is None:
        continue
    case = name.replace("BM_", "").replace("_AmbrelImage", "")
    if "p50_us" in r:
        print(f"  {case:22s} p50 {r['p50_us']:7.1f} us vs {host['p50_us']:7.1f} us  {r['p50_us']/host['p50_us']:5.2f}x"
              f"   p99 {r['p99_us']:7.1f} us vs {host['p99_us']:7.1f} us  {r['p99_us']/host['p99_us']:5.2f}x")
    else:
        print(f"  {case:22s} {r['real_time']:10.1f} vs {host['real_time']:10.1f} {r['time_unit']}  "
              f"image/host {r['real_time']/host['real_time']:5.2f}x")
PY
