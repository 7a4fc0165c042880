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

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done

if [ ${#missing[@]} -gt 0 ]; then
    echo "setup: installing ${missing[*]}"
    SUDO=""
    [ "$(id -u)" -eq 0 ] || SUDO=sudo
    $SUDO apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${missing[@]}" >/dev/null
fi

missing=()
for p in "${test_packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "setup: installing ${missing[*]}"
    SUDO=""
    [ "$(id -u)" -eq 0 ] || SUDO=sudo
    $SUDO apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
