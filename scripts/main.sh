#!/usr/bin/env bash
# The main job: sets the machine up, builds Ambrel for Linux and starts
# ambreld, which runs the driver in the host kernel and serves its ports on a
# FUSE mount (default /run/ambrel, or $AMBREL_MOUNT). It then shows the ports
# working between real processes: `ambrel hold Piano` creates the port
# "Piano" and prints what is played to it, `ambrel list` shows it to MIDI
# programs, `ambrel send` plays a short melody into it. Where JACK is
# installed, ambreld also puts every port in the JACK graph (--jack; a jackd
# on the dummy backend is started when none runs): `jack_lsp` lists the
# port, `jack_midi_dump` prints what its owner sends. ambreld keeps running
# afterwards for you to use from a shell or a program (README.md); stop it
# with `build/frontend/bin/ambreld --stop` (the daemon of that mount alone).
# A jackd started here keeps running too (its pid goes to
# $AMBREL_JACKD_PIDFILE when that is set).
#
#   bash scripts/main.sh           # as above
#   bash scripts/main.sh --log     # ambreld also writes the driver's debug log to ambreld.log
#   bash scripts/main.sh --demo    # no FUSE: the same story inside one process
#
# Without root or /dev/fuse there is no mount; the script says so and runs
# the in-process demonstration instead.
set -euo pipefail
cd "$(dirname "$0")/.."

mode=daemon
log=0
for a in "$@"; do
    case $a in
        --demo) mode=demo ;;
        --log) log=1 ;;
        -h|--help) sed -n '2,22p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
        *) echo "main.sh: unknown option $a (try --help)" >&2; exit 2 ;;
    esac
done

bash scripts/setup.sh

build=build/frontend
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$(nproc)" --target ambreld ambrel_cli ambrel-echo ambrel-demo >/dev/null
bin=$PWD/$build/bin
demo=$PWD/$build/tools/ambrel-demo/ambrel-demo

if [ "$mode" = daemon ] && { [ "$(id -u)" -ne 0 ] || [ ! -c /dev/fuse ]; }; then
    echo "main.sh: ambreld needs root and /dev/fuse for its mount; running the in-process demonstration" >&2
    mode=demo
fi
if [ "$mode" = demo ]; then
    if [ $log -eq 1 ]; then exec "$demo" --log; fi
    exec "$demo"
fi

# JACK: the server that runs, or one on the dummy backend (no sound card
# needed). ambreld joins whichever server $JACK_DEFAULT_SERVER names.
jack=0
jack_args=()
if command -v jackd >/dev/null && command -v jack_lsp >/dev/null; then
    jack=1
    jack_args=(--jack)
    if ! jack_lsp >/dev/null 2>&1; then
        server=${JACK_DEFAULT_SERVER:-default}
        nohup jackd --no-realtime -t 10000 -n "$server" -d dummy -r 48000 -p 256 >jackd.log 2>&1 &
        jackd_pid=$!
        [ -n "${AMBREL_JACKD_PIDFILE:-}" ] && echo "$jackd_pid" >"$AMBREL_JACKD_PIDFILE"
        for _ in $(seq 100); do
            jack_lsp >/dev/null 2>&1 && break
            sleep 0.1
        done
        jack_lsp >/dev/null 2>&1 || { echo "main.sh: jackd did not start (see $PWD/jackd.log)" >&2; exit 1; }
        echo "main.sh: started jackd \"$server\" on the dummy backend (pid $jackd_pid; its log: $PWD/jackd.log)"
    fi
fi

mount=${AMBREL_MOUNT:-/run/ambrel}
export AMBREL_MOUNT=$mount
if mountpoint -q "$mount" && [ -d "$mount/ports" ]; then
    echo "main.sh: ambreld already serves $mount"
elif [ $log -eq 1 ]; then
    # The daemon's stderr is gone once it detaches: keep it in the foreground
    # behind nohup so its log lands in a file. A mount left by an ambreld that
    # died is cleared first.
    nohup "$bin/ambreld" -f -v --unmount-stale "${jack_args[@]}" "$mount" >ambreld.log 2>&1 &
    echo "main.sh: the driver's debug log goes to $PWD/ambreld.log"
    for _ in $(seq 100); do
        [ -d "$mount/ports" ] && break
        sleep 0.1
    done
    [ -d "$mount/ports" ] || { echo "main.sh: ambreld did not come up on $mount" >&2; exit 1; }
    echo "main.sh: ambreld serves $mount (pid $!)"
else
    # In the background it returns once it serves, and says its pid.
    "$bin/ambreld" --unmount-stale "${jack_args[@]}" "$mount"
fi

# A melody, one note-on and its note-off per step: C D E F G.
notes=(3C 3E 40 41 43)
echo
echo "\$ ambrel hold Piano --count $(( ${#notes[@]} * 2 ))   # an application creates \"Piano\" and prints what it receives"
"$bin/ambrel" hold Piano --count $(( ${#notes[@]} * 2 )) &
holder=$!
for _ in $(seq 50); do
    [ -d "$mount/ports/Piano" ] && break
    sleep 0.1
done
echo "\$ ambrel list"
"$bin/ambrel" list
for n in "${notes[@]}"; do
    echo "\$ ambrel send Piano 90 $n 64 80 $n 00"
    "$bin/ambrel" send Piano 90 "$n" 64 80 "$n" 00
    sleep 0.2
done
# The holder leaves after the tenth message; one that is still waiting did not
# hear the whole melody.
for _ in $(seq 50); do
    kill -0 "$holder" 2>/dev/null || break
    sleep 0.1
done
if kill -0 "$holder" 2>/dev/null; then
    kill "$holder"
    echo "main.sh: \"Piano\" did not receive the whole melody" >&2
    exit 1
fi
wait "$holder"

if [ $jack -eq 1 ]; then
    # jack_midi_dump starts before the shell takes the port, so it does not
    # hold the port's file open.
    dump=$(mktemp)
    stdbuf -oL jack_midi_dump main-dump >"$dump" 2>/dev/null &
    dumper=$!
    echo
    echo "\$ exec 3<>$mount/Keys   # a shell owns the port \"Keys\""
    exec 3<>"$mount/Keys"
    for _ in $(seq 50); do
        jack_lsp 2>/dev/null | grep -q '^ambrel:Keys out$' && break
        sleep 0.1
    done
    if ! grep -q '^jack-out:' "$mount/ports/Keys/info"; then
        echo "main.sh: the ambreld serving $mount was started without --jack; restart it to see its ports in JACK"
        kill "$dumper" 2>/dev/null || true
        exec 3>&-
    else
        echo "\$ jack_lsp"
        jack_lsp
        echo "\$ jack_connect 'ambrel:Keys out' main-dump:input"
        jack_connect 'ambrel:Keys out' main-dump:input
        echo "\$ printf '\\x90\\x3c\\x64\\x80\\x3c\\x00' >&3   # the owner sends; jack_midi_dump prints:"
        printf '\x90\x3c\x64\x80\x3c\x00' >&3
        for _ in $(seq 50); do
            [ "$(grep -c 'note o' "$dump")" -ge 2 ] && break
            sleep 0.1
        done
        kill "$dumper" 2>/dev/null || true
        wait "$dumper" 2>/dev/null || true
        cat "$dump"
        exec 3>&-
        if [ "$(grep -c 'note o' "$dump")" -lt 2 ]; then
            rm -f "$dump"
            echo "main.sh: jack_midi_dump did not print what \"Keys\" sent" >&2
            exit 1
        fi
    fi
    rm -f "$dump"
fi

cat <<EOF

ambreld keeps serving $mount. Try, from any shell:
  $bin/ambrel hold Drums              # create a port and watch what is played to it
  $bin/ambrel send Drums 99 24 7F     # play into it from another shell
  $bin/ambrel list                    # ports and who uses them
  exec 3<>$mount/Organ; ls $mount/ports   # a port made with plain file calls
Help: $bin/ambrel help, $bin/ambrel help play; man pages after cmake --install.
Programs: README's echo example, frontend/examples/ambrel_echo.cpp and libambrel ($build/frontend/libambrel.a).
Programs that take a raw MIDI device path use the port's files, e.g. FluidSynth:
  fluidsynth -m oss -o midi.oss.device=$mount/ports/Drums/in /usr/share/sounds/sf2/TimGM6mb.sf2
  (it records what the owner of "Drums" sends: with "ambrel hold Drums --thru"
  as the owner, whatever is played into Drums goes on to FluidSynth)
Stop: $bin/ambreld --stop $mount        (withdraws every port, then unmounts)
EOF
if [ $jack -eq 1 ]; then
    cat <<EOF
JACK: every port is also "ambrel:NAME in" and "ambrel:NAME out" (jack_lsp);
  connect them with jack_connect, qjackctl or any JACK program.
EOF
fi
