#!/usr/bin/env bash
# Compares one benchmark binary of two revisions in one session:
#   bash scripts/bench-compare.sh BEFORE [AFTER] [ROUNDS] [BENCHMARK]
# BEFORE and AFTER are git revisions (AFTER defaults to the work tree as it
# is), ROUNDS (default 5) the number of before/after pairs, BENCHMARK the
# binary (default ambrel_bench_datapath). Each revision is built Release with
# -DAMBREL_BENCHMARKS=ON in its own folder (build/compare-before,
# build/compare-after); the two binaries then run interleaved, ROUNDS times
# each, 3 repetitions a run, and the script prints, per figure, the median
# over rounds of after/before (each round's median of its repetitions) and
# every round's ratio, so the spread shows how far the machine's noise goes.
# A pipe or memcpy peer in the same binary did not change and shows that
# noise directly.
set -euo pipefail
cd "$(dirname "$0")/.."
before=${1:?usage: bench-compare.sh BEFORE [AFTER] [ROUNDS] [BENCHMARK]}
after=${2:-}
rounds=${3:-5}
bench=${4:-ambrel_bench_datapath}
bash scripts/setup.sh

build() { # revision-or-empty folder
    local src=$PWD
    if [ -n "$1" ]; then
        src=$2-src
        rm -rf "$src"
        mkdir -p "$src"
        git archive "$1" | tar -x -C "$src"
    fi
    cmake -S "$src" -B "$2" -G Ninja -DCMAKE_BUILD_TYPE=Release -DAMBREL_BENCHMARKS=ON >/dev/null
    cmake --build "$2" --target "$bench" >/dev/null
}
build "$before" build/compare-before
build "$after" build/compare-after

out=build/compare-runs
rm -rf "$out"
mkdir -p "$out"
for round in $(seq "$rounds"); do
    for side in before after; do
        echo "round $round: $side"
        "build/compare-$side/bench/$bench" --benchmark_repetitions=3 \
            --benchmark_out="$out/$side-$round.json" --benchmark_out_format=json >/dev/null
    done
done

python3 - "$out" "$rounds" <<'PY'
import collections, json, statistics, sys
out, rounds = sys.argv[1], int(sys.argv[2])
def figures(side, round):
    values = collections.defaultdict(list)
    for r in json.load(open(f"{out}/{side}-{round}.json"))["benchmarks"]:
        if r.get("run_type") != "iteration":
            continue
        name = r["run_name"].replace("/real_time", "")
        values[name + " cpu"].append(r["cpu_time"])
        values[name + " real"].append(r["real_time"])
        for counter in ("p50_us", "p99_us"):
            if counter in r:
                values[name + " " + counter].append(r[counter])
    return {k: statistics.median(v) for k, v in values.items()}
ratios = collections.defaultdict(list)
for round in range(1, rounds + 1):
    b, a = figures("before", round), figures("after", round)
    for k in b:
        ratios[k].append(a[k] / b[k])
print()
print("after/before (time or latency: above 1 is slower)")
for k, v in ratios.items():
    print(f"  {k:50s} median {statistics.median(v):5.2f}   rounds {' '.join(f'{x:.2f}' for x in v)}")
PY
