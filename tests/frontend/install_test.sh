#!/usr/bin/env bash
# `cmake --install` of a built tree puts the programs, the library with its
# headers and pkg-config file, the man pages and bash completion in a prefix,
# and a program builds against that prefix with pkg-config alone.
#   install_test.sh BUILD_DIR EXAMPLE_SOURCE
set -euo pipefail
build=$1
example=$2
prefix=$(mktemp -d "${TMPDIR:-/tmp}/ambrel-install.XXXXXX")
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix" >/dev/null
lib=$(sed -n 's/^libdir=\${prefix}\///p' "$prefix"/lib*/pkgconfig/ambrel.pc)
missing=0
for f in bin/ambrel bin/ambreld "$lib/libambrel.a" "$lib/pkgconfig/ambrel.pc" include/ambrel/ambrel.h \
         include/ambrel/ambrel.hpp include/ambrel/mount.h share/man/man1/ambrel.1 share/man/man1/ambreld.1 \
         share/bash-completion/completions/ambrel share/bash-completion/completions/ambreld; do
    if [ ! -e "$prefix/$f" ]; then
        echo "install_test: $f was not installed" >&2
        missing=1
    fi
done
[ $missing -eq 0 ]
# The man pages say what --help says.
grep -q 'timeout SECONDS' "$prefix/share/man/man1/ambrel.1"
grep -q 'unmount\\-stale' "$prefix/share/man/man1/ambreld.1"
# Completion offers the commands, and a command's options.
complete_words() {
    # shellcheck disable=SC1090
    source "$prefix/share/bash-completion/completions/$1"
    COMP_WORDS=("${@:2}")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    COMPREPLY=()
    "_$1"
    echo "${COMPREPLY[*]}"
}
[ "$(complete_words ambrel ambrel pl)" = "play" ]
[ "$(complete_words ambrel ambrel monitor Piano --ti)" = "--timeout" ]
[ "$(complete_words ambreld ambreld --st)" = "--stop" ]
export PKG_CONFIG_PATH=$prefix/$lib/pkgconfig
# shellcheck disable=SC2046
c++ -std=c++17 -o "$prefix/echo" "$example" $(pkg-config --cflags --libs ambrel)
echo "install_test: everything in place under a prefix; the README example builds with pkg-config"
