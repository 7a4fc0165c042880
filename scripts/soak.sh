#!/usr/bin/env bash
# Long hardening run: the delay-injected stress of tests/hardening under
# ThreadSanitizer for a wall-clock budget, one seed after another, then the
# dispatch fuzzer for the same budget. CI runs the short versions (ctest's
# "concurrency" label in the TSan job, scripts/fuzz.sh for 20 s).
#
#   bash scripts/soak.sh                 # one hour of stress, one hour of fuzzing
#   bash scripts/soak.sh 600 0           # ten minutes of stress, no fuzzing
#   AMBREL_STRESS_DELAY=100 bash scripts/soak.sh 1800 0   # denser pauses (per mille)
#
# Builds: build/soak-tsan (thread sanitizer, as the CI job) and build/soak-fuzz
# (clang, address+undefined, libFuzzer). A failing round prints its seed;
# replay it with AMBREL_STRESS_SEED=<seed> AMBREL_STRESS_SECONDS=1.
set -euo pipefail
cd "$(dirname "$0")/.."

stress_seconds=${1:-3600}
fuzz_seconds=${2:-3600}
round_seconds=${AMBREL_SOAK_ROUND:-60}

if [ "$stress_seconds" -gt 0 ]; then
    cmake -S . -B build/soak-tsan -G Ninja -DCMAKE_BUILD_TYPE=Debug \
        -DAMBREL_SANITIZE=thread -DAMBREL_WERROR=OFF >/dev/null
    cmake --build build/soak-tsan --target hardening_stress_tests
    bin=build/soak-tsan/tests/hardening/hardening_stress_tests
    end=$((SECONDS + stress_seconds))
    seed=${AMBREL_STRESS_SEED:-$(date +%s)}
    runs=0
    while [ $SECONDS -lt $end ]; do
        left=$((end - SECONDS))
        budget=$((left < round_seconds ? left : round_seconds))
        echo "soak.sh: stress seed $seed for ${budget}s"
        if ! TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 AMBREL_STRESS_SEED=$seed \
            AMBREL_STRESS_SECONDS=$budget "$bin" --gtest_brief=1; then
            echo "soak.sh: stress FAILED with seed $seed" >&2
            exit 1
        fi
        runs=$((runs + 1))
        seed=$((seed + 1000))
    done
    echo "soak.sh: stress passed, $runs runs"
fi

if [ "$fuzz_seconds" -gt 0 ]; then
    CC=clang-14 CXX=clang++-14 cmake -S . -B build/soak-fuzz -G Ninja -DCMAKE_BUILD_TYPE=Debug \
        -DAMBREL_FUZZERS=ON -DAMBREL_SANITIZE=address,undefined -DAMBREL_WERROR=OFF >/dev/null
    cmake --build build/soak-fuzz
    bash scripts/fuzz.sh build/soak-fuzz "$fuzz_seconds"
fi
