#!/usr/bin/env bash
# Runs every fuzz_* binary of a fuzzer build for the given number of seconds,
# each on a scratch copy of its checked-in corpus (fuzz/corpus/<name>/), and
# fails on the first crash, leak or broken invariant.
#
#   bash scripts/fuzz.sh build/fuzz 20        # CI smoke run
#   bash scripts/fuzz.sh build/fuzz 3600      # a longer hunt, one hour each
#
# The build:
#   CC=clang-14 CXX=clang++-14 cmake -S . -B build/fuzz -G Ninja -DCMAKE_BUILD_TYPE=Debug \
#       -DAMBREL_FUZZERS=ON -DAMBREL_SANITIZE=address,undefined -DAMBREL_WERROR=OFF
#   cmake --build build/fuzz
# Crash inputs land in the scratch directory's artifacts/ folder, whose path
# is printed; add a minimised one to the corpus when the bug is fixed.
#
# Each fuzzer checks the host verifier after every input, which catches any
# pool the driver leaks; libFuzzer's own per-input leak scan is off because
# the host kernel's bookkeeping makes it run on nearly every input and it
# would take most of the time. LeakSanitizer still checks at exit.
set -euo pipefail
cd "$(dirname "$0")/.."

builddir=${1:?usage: fuzz.sh <builddir> <seconds>}
seconds=${2:?usage: fuzz.sh <builddir> <seconds>}

mapfile -t fuzzers < <(find "$builddir" -maxdepth 3 -type f -name 'fuzz_*' -perm -u+x | sort)
if [ ${#fuzzers[@]} -eq 0 ]; then
    echo "fuzz.sh: no fuzz_* binaries under $builddir" >&2
    exit 1
fi

scratch=$(mktemp -d "${TMPDIR:-/tmp}/ambrel-fuzz.XXXXXX")
failed=0
for bin in "${fuzzers[@]}"; do
    name=$(basename "$bin")
    name=${name#fuzz_}
    work="$scratch/$name"
    mkdir -p "$work/corpus" "$work/artifacts"
    if [ -d "fuzz/corpus/$name" ]; then
        cp -r "fuzz/corpus/$name/." "$work/corpus/"
    fi
    echo "fuzz.sh: $name for ${seconds}s"
    if ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
        "$bin" -max_total_time="$seconds" -max_len=1100 -print_final_stats=1 -detect_leaks=0 \
        -artifact_prefix="$work/artifacts/" "$work/corpus" >"$work/log" 2>&1; then
        grep -E '^(stat::number_of_executed_units|Done )' "$work/log" || tail -n 2 "$work/log"
    else
        echo "fuzz.sh: $name FAILED; log and crash input in $work" >&2
        tail -n 40 "$work/log" >&2
        failed=1
    fi
done

if [ $failed -eq 0 ]; then
    rm -rf "$scratch"
fi
exit $failed
