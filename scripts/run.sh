#!/usr/bin/env bash
# Builds and runs Vellatone.
#
# With no sound server reachable (pactl info fails), it starts a private
# PulseAudio with a few virtual speakers for the run, and stops it again
# afterwards. With a display (DISPLAY or WAYLAND_DISPLAY) it opens the window;
# without one it runs headless, and says how to drive it with
# build/bin/vellatonectl (which works with the window too). Ctrl-C stops it;
# it gives the default sink back before it exits.
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$(pwd)
scripts/install-deps.sh
scripts/build.sh build

# Where the control socket goes, fixed before a private server changes
# XDG_RUNTIME_DIR.
if [ -z "${VELLATONE_CONTROL_SOCKET:-}" ]; then
    if [ -n "${XDG_RUNTIME_DIR:-}" ]; then
        VELLATONE_CONTROL_SOCKET=$XDG_RUNTIME_DIR/vellatone/control.sock
    else
        VELLATONE_CONTROL_SOCKET=/tmp/vellatone-$(id -u)/control.sock
    fi
fi
export VELLATONE_CONTROL_SOCKET

private_pulse=
cleanup() {
    if [ -n "$private_pulse" ]; then
        scripts/private-pulse.sh stop "$private_pulse" >/dev/null 2>&1 || true
        rm -rf "$private_pulse"
        echo "run.sh: stopped the private PulseAudio in $private_pulse."
    fi
}
trap cleanup EXIT

if pactl info >/dev/null 2>&1; then
    echo "run.sh: using the sound server that is already running."
else
    private_pulse=$(mktemp -d /tmp/vellatone-pulse.XXXXXX)
    eval "$(scripts/private-pulse.sh start "$private_pulse" speakers:48000:Speakers \
        living:48000:Living kitchen:44100:Kitchen den:48000:Den)"
    export XDG_RUNTIME_DIR PULSE_SERVER
    pactl set-default-sink speakers
    echo "run.sh: no sound server was reachable, so I started a private PulseAudio in"
    echo "        $private_pulse with four virtual speakers (null sinks): Speakers (the"
    echo "        default), Living, Kitchen (44.1 kHz) and Den. It stops when Vellatone exits."
fi

mode=--headless
if [ -z "${DISPLAY:-}" ] && [ -z "${WAYLAND_DISPLAY:-}" ]; then
    echo "run.sh: there is no display, so Vellatone runs headless (no window)."
else
    mode=
    echo "run.sh: opening the Vellatone window (and a tray icon where the desktop has a tray)."
fi
# One block to paste into another shell: the control socket and, with a
# private server, the way to reach that server (pactl, paplay, players).
exports="export VELLATONE_CONTROL_SOCKET=$VELLATONE_CONTROL_SOCKET"
if [ -n "$private_pulse" ]; then
    exports="$exports PULSE_SERVER=$PULSE_SERVER"
fi
cat <<EOT
run.sh: drive it from another shell with the control tool; paste this first:
    $exports
    $repo/build/bin/vellatonectl outputs          # what can be added: id, kind, name, transport
    $repo/build/bin/vellatonectl add uid:living   # add an output by its id
    $repo/build/bin/vellatonectl delay 0 100      # slot 0 plays 100 ms later
    $repo/build/bin/vellatonectl start            # take the default sink and send
    $repo/build/bin/vellatonectl status           # the whole state as JSON
    $repo/build/bin/vellatonectl stop
  Press Ctrl-C here to quit; the default sink is given back first.
EOT

build/bin/vellatone $mode &
app=$!
trap 'kill -TERM "$app" 2>/dev/null || true' INT TERM
status=0
wait "$app" || status=$?
# A signal interrupts the first wait; the app is still giving the sink back.
if kill -0 "$app" 2>/dev/null; then wait "$app" || status=$?; fi
exit "$status"
