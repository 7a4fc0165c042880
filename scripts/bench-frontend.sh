#!/usr/bin/env bash
# Builds and runs the front end's benchmark (Release, build/bench): note-on
# latency and throughput (1, 64 and 1024 messages per write) between two
# processes through ambreld, JACK MIDI on jackd's dummy backend and a pipe,
# and jack_midi_latency_test's round trip through ambreld's JACK bridge
# against a direct JACK connection, then prints them side by side (the
# median of repetitions, with --benchmark_repetitions). Needs root
# and /dev/fuse (ambreld mounts a temporary directory). Extra arguments go to
# the benchmark binary; AMBREL_BENCH_JACK_PERIOD sets jackd's period (frames
# at 48 kHz, default 64), AMBREL_BENCH_ROUNDTRIP_PERIOD the round trip's
# (default 256).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

cmake -S . -B build/bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DAMBREL_BENCHMARKS=ON >/dev/null
cmake --build build/bench --target ambrel_bench_frontend

out=build/bench/ambrel_bench_frontend.json
build/bench/bench/ambrel_bench_frontend --benchmark_out="$out" --benchmark_out_format=json "$@"

python3 - "$out" <<'PY'
import json, sys
# One row per benchmark and argument: with repetitions, the median row
# stands for them (mean, stddev and cv rows are left out); without one (no
# repetitions, or repetitions that failed), the first run that did not fail,
# else the first that did.
runs = {}
for r in json.load(open(sys.argv[1]))["benchmarks"]:
    parts = [p for p in r.get("run_name", r["name"]).split("/")
             if not p.startswith(("iterations:", "repeats:", "min_time:", "real_time", "manual_time"))]
    key = "/".join(parts)
    kind = r.get("aggregate_name") if r.get("run_type") == "aggregate" else "run"
    if kind not in ("median", "run"):
        continue
    rank = (kind == "median", not r.get("error_message"))
    if key not in runs or rank > runs[key][0]:
        runs[key] = (rank, r)
runs = {k: r for k, (_, r) in runs.items()}
def get(key, field):
    r = runs.get(key, {})
    return None if r.get("error_message") else r.get(field)
def why(key):
    # Errors quote the tools' output: one line of it.
    return " ".join(runs.get(key, {}).get("error_message", "not run").split())[:160]
print()
print("note-on between two processes (same run)")
print(f"  {'path':28s} {'median us':>10s} {'p99 us':>10s}")
for label, key in (("Ambrel render (client->app)", "Ambrel_Render"), ("Ambrel capture (app->client)", "Ambrel_Capture"),
                   ("JACK MIDI (dummy backend)", "Jack"), ("pipe", "Pipe")):
    m, p = get("BM_Latency_" + key, "median_us"), get("BM_Latency_" + key, "p99_us")
    if m is None:
        print(f"  {label:28s} skipped: {why('BM_Latency_' + key)}")
        continue
    print(f"  {label:28s} {m:10.1f} {p:10.1f}")
a, j, p = (get("BM_Latency_" + k, "median_us") for k in ("Ambrel_Render", "Jack", "Pipe"))
if a and j and p:
    print(f"  Ambrel/JACK median {a/j:.3f}x (goal < 1), Ambrel/pipe median {a/p:.2f}x (goal <= 3)")
print()
print("throughput, note-ons per second by messages per write (same run)")
print(f"  {'path':28s} {'1':>12s} {'64':>12s} {'1024':>12s}")
jack = get("BM_Throughput_Jack/1", "items_per_second")
for label, key in (("Ambrel render (client->app)", "Ambrel_Render"), ("Ambrel capture (app->client)", "Ambrel_Capture"),
                   ("pipe", "Pipe")):
    rates = [get(f"BM_Throughput_{key}/{b}", "items_per_second") for b in (1, 64, 1024)]
    print(f"  {label:28s} " + " ".join(f"{r:12.0f}" if r else f"{'-':>12s}" for r in rates))
print(f"  {'JACK MIDI (its own queue)':28s} " + (f"{jack:12.0f}" if jack else f"skipped: {why('BM_Throughput_Jack/1')}"))
if jack:
    for key in ("Ambrel_Render", "Ambrel_Capture"):
        rates = [get(f"BM_Throughput_{key}/{b}", "items_per_second") for b in (1, 64, 1024)]
        if all(rates):
            print(f"  {key.replace('_', ' ')}/JACK: " + ", ".join(f"{r/jack:.2f}x at {b}" for r, b in zip(rates, (1, 64, 1024)))
                  + " (goal for batches >= 1)")
print()
print("jack_midi_latency_test round trip (same run)")
d, e = get("BM_RoundTrip_Jack_Direct", "avg_frames"), get("BM_RoundTrip_Jack_AmbrelEcho", "avg_frames")
period = get("BM_RoundTrip_Jack_Direct", "period_frames") or get("BM_RoundTrip_Jack_AmbrelEcho", "period_frames")
for label, key in (("direct JACK connection", "BM_RoundTrip_Jack_Direct"), ("through ambrel-echo", "BM_RoundTrip_Jack_AmbrelEcho")):
    v = get(key, "avg_frames")
    if v is None:
        print(f"  {label:28s} skipped: {why(key)}")
    else:
        print(f"  {label:28s} avg {v:8.1f} frames, min {get(key, 'min_frames') or 0:6.0f}, max {get(key, 'max_frames') or 0:6.0f}")
if d and e and period:
    print(f"  the bridge adds {(e - d) / period:.2f} periods of {period:.0f} frames on average (goal <= 1)")
PY
