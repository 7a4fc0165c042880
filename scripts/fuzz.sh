#!/usr/bin/env bash
# Runs every fuzz_* binary of a fuzzer build for the given number of seconds,
# each on a scratch copy of its checked-in corpus (fuzz/corpus/<name>/), and
# fails on the first crash, leak or broken invariant.
#
#   bash scripts/fuzz.sh build/fuzz 20          # CI smoke run
#   bash scripts/fuzz.sh build/fuzz 3600        # a longer hunt, one hour each
#   bash scripts/fuzz.sh build/fuzz 900 merge   # grow the checked-in corpora
#
# With "merge", a passing run folds what it found back into fuzz/corpus/<name>/
# through libFuzzer's -merge=1: the hand-written seeds (named files) stay, the
# files named by their hash are replaced by the smallest set that keeps every
# feature of seeds, old corpus and new finds together. Review and commit them.
#
# The build:
#   CC=clang-14 CXX=clang++-14 cmake -S . -B build/fuzz -G Ninja -DCMAKE_BUILD_TYPE=Debug \
#       -DAMBREL_FUZZERS=ON -DAMBREL_SANITIZE=address,undefined -DAMBREL_WERROR=OFF
#   cmake --build build/fuzz
# Crash inputs land in the scratch directory's artifacts/ folder, whose path
# is printed; add a minimised one to the corpus when the bug is fixed.
#
# When the Windows build is there (build/windows/ambrel.sys), the dispatch
# fuzzer's corpus (checked-in plus this run's finds) is then replayed on the
# shipped image: every input once, with the same checks after each.
#
# Each fuzzer checks the host verifier after every input, which catches any
# pool the driver leaks; libFuzzer's own per-input leak scan is off because
# the host kernel's bookkeeping makes it run on nearly every input and it
# would take most of the time. LeakSanitizer still checks at exit.
set -euo pipefail
cd "$(dirname "$0")/.."

usage="usage: fuzz.sh <builddir> <seconds> [merge]"
builddir=${1:?$usage}
seconds=${2:?$usage}
merge=${3:-}
if [ -n "$merge" ] && [ "$merge" != merge ]; then
    echo "$usage" >&2
    exit 2
fi
# A hang is a failure too: no input takes more than a fraction of a second,
# so one still running after this long is stuck, not slow.
options=(-timeout=30 -detect_leaks=0)
# Inputs up to 1100 bytes, but whole driver images for the image loader
# (ambrel.sys is about 80 KB).
max_len() { if [ "$1" = peloader ]; then echo 131072; else echo 1100; fi; }
sanitized() {
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 "$@"
}

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
    # The shipped image seeds the loader's fuzzer when the Windows build is there.
    if [ "$name" = peloader ] && [ -f build/windows/ambrel.sys ]; then
        cp build/windows/ambrel.sys "$work/corpus/ambrel.sys"
    fi
    echo "fuzz.sh: $name for ${seconds}s"
    if sanitized "$bin" -max_total_time="$seconds" -max_len="$(max_len "$name")" "${options[@]}" -print_final_stats=1 \
        -artifact_prefix="$work/artifacts/" "$work/corpus" >"$work/log" 2>&1; then
        # The final line (edges, features, corpus, inputs per second) and the
        # number of inputs run.
        grep -E '^#[0-9]+[[:space:]]+DONE|^stat::(number_of_executed_units|average_exec_per_sec)' "$work/log" ||
            tail -n 2 "$work/log"
        if [ "$merge" = merge ]; then
            merged="$work/merged"
            mkdir -p "$merged" "fuzz/corpus/$name"
            find "fuzz/corpus/$name" -regextype posix-extended -maxdepth 1 -type f ! -regex '.*/[0-9a-f]{40}' -exec cp {} "$merged/" \;
            if ! sanitized "$bin" -merge=1 -max_len="$(max_len "$name")" "${options[@]}" "$merged" "fuzz/corpus/$name" "$work/corpus" \
                >"$work/merge.log" 2>&1; then
                echo "fuzz.sh: merging $name FAILED; log in $work/merge.log" >&2
                failed=1
                continue
            fi
            find "fuzz/corpus/$name" -regextype posix-extended -maxdepth 1 -type f -regex '.*/[0-9a-f]{40}' -delete
            find "$merged" -regextype posix-extended -maxdepth 1 -type f -regex '.*/[0-9a-f]{40}' -exec cp {} "fuzz/corpus/$name/" \;
            echo "fuzz.sh: fuzz/corpus/$name now $(find "fuzz/corpus/$name" -type f | wc -l) files," \
                "$(cat "fuzz/corpus/$name"/* | wc -c) bytes"
        fi
    else
        echo "fuzz.sh: $name FAILED; log and crash input in $work" >&2
        tail -n 40 "$work/log" >&2
        failed=1
    fi
done

image=build/windows/ambrel.sys
dispatch=$(printf '%s\n' "${fuzzers[@]}" | grep '/fuzz_dispatch$' || true)
if [ -n "$dispatch" ] && [ -f "$image" ]; then
    work="$scratch/dispatch-image"
    mkdir -p "$work/artifacts"
    corpus="$scratch/dispatch/corpus"
    [ -d "$corpus" ] || corpus=fuzz/corpus/dispatch
    echo "fuzz.sh: dispatch corpus replayed on $image ($(find "$corpus" -type f | wc -l) inputs)"
    if AMBREL_DRIVER_IMAGE="$image" sanitized "$dispatch" -runs=0 -max_len=1100 "${options[@]}" \
        -artifact_prefix="$work/artifacts/" "$corpus" >"$work/log" 2>&1; then
        grep -E '^#[0-9]+[[:space:]]+(INITED|DONE)' "$work/log" | tail -n 1
    else
        echo "fuzz.sh: dispatch on the image FAILED; log and crash input in $work" >&2
        tail -n 40 "$work/log" >&2
        failed=1
    fi
fi

if [ $failed -eq 0 ]; then
    rm -rf "$scratch"
fi
exit $failed
