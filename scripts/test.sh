#!/usr/bin/env bash
# Sets everything up and runs the whole test suite:
#   1. ambrel.sys for Windows x64, its PE audit, and the layout parity check
#      between the Windows DDK headers and the host kernel's (each with its
#      self-test); the image is what the next steps run a second time;
#   2. host build, every test with the host verifier on; the suites that reach
#      the driver only as Windows would run on the host build and on the
#      image ("@image");
#   3. the same under AddressSanitizer + UndefinedBehaviorSanitizer;
#   4. the concurrency tests under ThreadSanitizer (host build);
#   5. the fuzzers' smoke runs (clang, libFuzzer), and the dispatch fuzzer's
#      corpus replayed on the image;
#   6. the benchmarks' smoke run (they must run; figures come from
#      scripts/bench.sh), the scale benchmark on the image too;
#   7. the main job itself (README's first command), on a scratch mount.
# AMBREL_STEPS="host asan" limits the run to some steps; without "windows"
# the host steps run on the host build alone.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

steps=${AMBREL_STEPS:-"windows host asan tsan fuzz bench main"}
jobs=$(nproc)
want() { [[ " $steps " == *" $1 "* ]]; }
banner() { printf '\n==== %s ====\n' "$*"; }
configure_and_build() {
    local dir=$1
    shift
    cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
    cmake --build "$dir" -j"$jobs"
}

image=""
if want windows; then
    banner "ambrel.sys for Windows x64, its PE audit and the layout parity check"
    configure_and_build build/windows -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake
    python3 tools/pe_audit.py build/windows/ambrel.sys build/windows
    # Every size, offset, constant, kit identifier and interface slot the two
    # sides share; then the check's own test, on the same objects.
    python3 tools/parity_check.py build/windows/parity/objects.txt
    python3 tests/parity/test_parity_check.py build/windows/parity/objects.txt
    # libambrel's Windows half and its example program (user mode).
    cmake -S frontend/windows -B build/windows-frontend -G Ninja -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/mingw-w64-x86_64.cmake" >/dev/null
    cmake --build build/windows-frontend
    image=$PWD/build/windows/ambrel.sys
fi

if want host; then
    banner "host build and tests (verifier on)"
    configure_and_build build/host -DCMAKE_BUILD_TYPE=Debug -DAMBREL_DRIVER_IMAGE="$image"
    ctest --test-dir build/host --output-on-failure -j"$jobs" --timeout 300
fi

if want asan; then
    banner "AddressSanitizer + UndefinedBehaviorSanitizer"
    configure_and_build build/asan -DCMAKE_BUILD_TYPE=Debug -DAMBREL_SANITIZE=address,undefined \
        -DAMBREL_DRIVER_IMAGE="$image"
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
        ctest --test-dir build/asan --output-on-failure -j"$jobs" --timeout 600
fi

if want tsan; then
    banner "ThreadSanitizer (concurrency tests)"
    configure_and_build build/tsan -DCMAKE_BUILD_TYPE=Debug -DAMBREL_SANITIZE=thread
    TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
        ctest --test-dir build/tsan --output-on-failure -j"$jobs" -L concurrency --timeout 900
fi

if want fuzz && [ -d fuzz ] && [ -f fuzz/CMakeLists.txt ]; then
    banner "fuzzer smoke runs"
    CC=clang-14 CXX=clang++-14 configure_and_build build/fuzz -DCMAKE_BUILD_TYPE=Debug \
        -DAMBREL_FUZZERS=ON -DAMBREL_SANITIZE=address,undefined -DAMBREL_WERROR=OFF
    bash scripts/fuzz.sh build/fuzz 20
fi

if want bench && [ -f bench/CMakeLists.txt ]; then
    banner "benchmark smoke run"
    configure_and_build build/bench -DCMAKE_BUILD_TYPE=Release -DAMBREL_BENCHMARKS=ON
    for b in build/bench/bench/ambrel_bench*; do
        [ -x "$b" ] && "$b" --benchmark_min_time=0.01 >/dev/null
    done
    if [ -n "$image" ]; then
        # The datapath benchmark runs its Ambrel cases on both builds when it
        # is given the image; the scale benchmark runs on the image alone.
        build/bench/bench/ambrel_bench_datapath --ambrel-driver="$image" --benchmark_filter=AmbrelImage \
            --benchmark_min_time=0.01 >/dev/null
        build/bench/bench/ambrel_bench_scale --ambrel-driver="$image" --benchmark_min_time=0.01 >/dev/null
    fi
    echo "benchmarks ran"
fi

if want main; then
    banner "the main job"
    # A scratch mount, so a developer's own ambreld on /run/ambrel is left alone.
    mnt=$(mktemp -d "${TMPDIR:-/tmp}/ambrel-main.XXXXXX")
    # A JACK server of its own name, stopped afterwards (SIGKILL when it
    # ignores SIGTERM for two seconds).
    jackd_pidfile=$mnt.jackd
    stop_main_jackd() {
        [ -s "$jackd_pidfile" ] || return 0
        local pid
        pid=$(cat "$jackd_pidfile")
        kill "$pid" 2>/dev/null || true
        for _ in $(seq 20); do
            kill -0 "$pid" 2>/dev/null || break
            sleep 0.1
        done
        kill -9 "$pid" 2>/dev/null || true
        rm -f "$jackd_pidfile"
    }
    trap stop_main_jackd EXIT
    AMBREL_MOUNT=$mnt JACK_DEFAULT_SERVER=ambrel-main-$$ AMBREL_JACKD_PIDFILE=$jackd_pidfile \
        timeout 900 bash scripts/main.sh
    if mountpoint -q "$mnt"; then
        build/frontend/bin/ambreld --stop "$mnt" || true
        if mountpoint -q "$mnt"; then
            echo "test.sh: ambreld did not unmount $mnt" >&2
            exit 1
        fi
    fi
    stop_main_jackd
    rmdir "$mnt"
fi
