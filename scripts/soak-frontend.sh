#!/usr/bin/env bash
# The front end's soak (figures in BENCHMARKS.md): rounds of real processes
# against a real ambreld for SECONDS (default 600). Six ports, each with an
# owner that reads fast, slowly or is killed half-way, and four writers each
# writing whole messages in writes of 3 bytes to 150 KB; every other round
# ambreld is stopped while they write. Counts the bytes writers were told are
# written against those the owners read, checks every writer's sequence, and
# fails on any loss, repeat, reordering, failed close or writer left writing
# into a dead owner's port. Needs root and /dev/fuse.
#   bash scripts/soak-frontend.sh [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
build=build/soak
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
nice -n 10 cmake --build "$build" -j2 --target ambreld frontend_soak >/dev/null
exec "$build/tests/frontend/frontend_soak" "$PWD/$build/bin/ambreld" "${1:-600}"
