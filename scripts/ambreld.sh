#!/usr/bin/env bash
# Builds the Linux front end (build/frontend) and starts ambreld. Arguments go
# to ambreld: with none it becomes a daemon serving /run/ambrel;
#   bash scripts/ambreld.sh -f -v        # foreground, with the driver's log
#   bash scripts/ambreld.sh /tmp/ambrel  # another mount point
# Stop it with: build/frontend/bin/ambreld --stop [MOUNT]
#   (that mount's daemon alone: what writers sent reaches the owners, every
#   port is withdrawn, then it unmounts)
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

build=build/frontend
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" --target ambreld ambrel_cli ambrel-echo ambrel_client >/dev/null
echo "ambreld.sh: the command is $build/bin/ambrel, the library $build/frontend/libambrel.a" >&2
exec "$build/bin/ambreld" "$@"
