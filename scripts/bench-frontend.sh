#!/usr/bin/env bash
# Builds and runs the front end's benchmark (Release, build/bench): note-on
# latency and throughput between two processes through ambreld, JACK MIDI on
# jackd's dummy backend and a pipe, then prints them side by side. Needs root
# and /dev/fuse (ambreld mounts a temporary directory). Extra arguments go to
# the benchmark binary; AMBREL_BENCH_JACK_PERIOD sets jackd's period (frames
# at 48 kHz, default 64).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

cmake -S . -B build/bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DAMBREL_BENCHMARKS=ON >/dev/null
cmake --build build/bench --target ambrel_bench_frontend

out=build/bench/ambrel_bench_frontend.json
build/bench/bench/ambrel_bench_frontend --benchmark_out="$out" --benchmark_out_format=json "$@"

python3 - "$out" <<'PY'
import json, sys
runs = {r["name"].split("/")[0]: r for r in json.load(open(sys.argv[1]))["benchmarks"]}
def lat(name):
    r = runs.get(name, {})
    return (r.get("median_us"), r.get("p99_us"), r.get("error_message"))
print()
print("note-on between two processes (same run)")
print(f"  {'path':28s} {'median us':>10s} {'p99 us':>10s} {'msgs/s':>12s}")
for label, key in (("Ambrel render (client->app)", "Ambrel_Render"), ("Ambrel capture (app->client)", "Ambrel_Capture"),
                   ("JACK MIDI (dummy backend)", "Jack"), ("pipe", "Pipe")):
    m, p, err = lat("BM_Latency_" + key)
    t = runs.get("BM_Throughput_" + key, {}).get("items_per_second")
    if err or m is None:
        print(f"  {label:28s} skipped: {err}")
        continue
    print(f"  {label:28s} {m:10.1f} {p:10.1f} {t if t else 0:12.0f}")
a, j, p = lat("BM_Latency_Ambrel_Render")[0], lat("BM_Latency_Jack")[0], lat("BM_Latency_Pipe")[0]
if a and j and p:
    print(f"  Ambrel/JACK median {a/j:.3f}x (goal < 1), Ambrel/pipe median {a/p:.2f}x (goal <= 3)")
PY
