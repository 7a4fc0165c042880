#!/usr/bin/env bash
# The main job: sets the machine up, builds the host kernel with the driver on
# it, and runs the live demonstration: an application creates the port
# "Piano", a MIDI client plays a melody into it, the application echoes every
# note back out of the port's capture side, and a recording client prints what
# it hears. Arguments go to the demo (--log shows the driver's debug log).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

build=build/main
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$(nproc)" --target ambrel-demo >/dev/null
exec "$build/tools/ambrel-demo/ambrel-demo" "$@"
