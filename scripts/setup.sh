#!/usr/bin/env bash
# Installs what the project needs on a fresh Debian machine. Safe to run again:
# it only calls apt when a package is missing.
set -euo pipefail

packages=(
    build-essential cmake ninja-build python3
    googletest libgtest-dev libgmock-dev libbenchmark-dev
    clang-14 libclang-rt-14-dev lld-14
    g++-mingw-w64-x86-64-win32 mingw-w64-common mingw-w64-tools binutils-mingw-w64-x86-64
    libasound2-dev
    fuse3 libfuse3-dev jackd2 libjack-jackd2-dev
)

# Programs and songs the front end is tried with as users would meet them:
# FluidSynth recording from a port, Standard MIDI Files from Debian's games,
# sox measuring what FluidSynth rendered, python3-rtmidi listing JACK ports
# (jackd2 brings jack_midiseq, jack_midi_dump and jack_midi_latency_test).
# Their recommendations (desktop sound servers) are not wanted.
test_packages=(fluidsynth timgm6mb-soundfont openttd-openmsx planetblupi-music-midi sox python3-rtmidi)

# Installs those of the named packages that are missing; the arguments
# before "--" go to apt-get install.
install_missing() {
    local options=()
    while [ "$1" != "--" ]; do
        options+=("$1")
        shift
    done
    shift
    local missing=() p
    for p in "$@"; do
        if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
            missing+=("$p")
        fi
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    echo "setup: installing ${missing[*]}"
    local sudo=""
    [ "$(id -u)" -eq 0 ] || sudo=sudo
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq ${options[@]+"${options[@]}"} "${missing[@]}" >/dev/null
}

install_missing -- "${packages[@]}"
install_missing --no-install-recommends -- "${test_packages[@]}"
