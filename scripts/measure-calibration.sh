#!/usr/bin/env bash
# Measures how well the microphone method finds how late a speaker is, with
# real parts: a private sound server (PulseAudio, or PipeWire with
# VELLATONE_TEST_SERVER=pipewire) with the speakers "living" (48 kHz, the
# reference), "kitchen" (48 kHz) and "den" (44.1 kHz), a virtual room
# (tests/support/virtual-room.sh) whose microphone hears each speaker
# through its own delay, kitchen with a reflection louder than its direct
# sound, and vellatone --headless playing to all three.
#
# The truth comes from the sound, never from the room's settings: each
# speaker's delay to the microphone is measured with a different noise in
# each (room_truth), and the speakers' offsets against each other while the
# app plays noise to all of them; both from recordings made by one process.
# Then `vellatonectl calibrate SLOT 0 microphone --apply` for kitchen and den,
# and the offsets again:
#
#   calibration error: kitchen X ms, den Y ms      stored minus the truth
#   meeting at the microphone: kitchen X ms, den Y ms
#                                  how much later each speaker's sound reaches
#                                  the microphone than the reference's, after
#
#   LIMIT_MS=0.5           exit 1 when either figure is beyond it (default 0.5)
#   BIN=build/bin          where the binaries are
#   KEEP_WORK=1            keep the work folder
set -euo pipefail

REPO=$(cd "$(dirname "$0")/.." && pwd)
BIN=${BIN:-$REPO/build/bin}
LIMIT_MS=${LIMIT_MS:-0.5}
for tool in vellatone vellatonectl vellatone-room vellatone-syncmeter; do
    [[ -x $BIN/$tool ]] || { echo "measure-calibration: $BIN/$tool is missing; build it first" >&2; exit 2; }
done
# shellcheck source=../tests/support/app_test.sh
source "$REPO/tests/support/app_test.sh"
# shellcheck source=../tests/support/virtual-room.sh
source "$REPO/tests/support/virtual-room.sh"

noise_pid=
app_test_on_exit() {
    [[ -n $noise_pid ]] && { kill "$noise_pid" 2>/dev/null; wait "$noise_pid" 2>/dev/null; }
    room_end
}
app_test_extra_logs="room.err room-truth.err"
app_test_begin vellatone-calibration living:48000:Living kitchen:48000:Kitchen den:44100:Den

# Speakers tens of ms apart (what a speaker's own hidden latency and its
# distance add up to); kitchen's wall is louder than kitchen itself.
room_begin living=75 kitchen=95,98.5@1.6 den=130@0.8 || fail "no room"
launch 1
for s in living kitchen den; do ctl add "uid:$s" || fail "add $s"; done
ctl start || fail "start"

# Each speaker's offset against living while the app plays noise to all.
offsets() {
    pacat --playback --rate=48000 --channels=2 --format=float32le --latency-msec=100 \
        --client-name=calibration-noise <"$work/noise.raw" &
    noise_pid=$!
    sleep 1
    room_measure "$1" --latency 'living->kitchen' --latency 'living->den' -- living kitchen den ||
        fail "speakers not recorded: $(cat "$work/$1.out")"
    kill "$noise_pid"; wait "$noise_pid" 2>/dev/null || true; noise_pid=
    for s in kitchen den; do
        sed -n "s/^latency living->$s: \([-0-9.]*\) ms.*/\1/p" "$work/$1.out"
    done
}
sox -n -r 48000 -c 2 -b 32 -e floating-point -t raw "$work/noise.raw" \
    synth 8 whitenoise vol 0.5 sinc -12k 2>/dev/null

step "the truth: each speaker's delay to the microphone"
room_truth living kitchen den || fail "the room's arrivals were not measured: $(cat "$work/room-truth.out")"
echo "arrivals at the microphone: living ${ROOM_ARRIVAL[living]} ms, kitchen ${ROOM_ARRIVAL[kitchen]} ms, den ${ROOM_ARRIVAL[den]} ms"
mapfile -t before < <(offsets offsets-before)
echo "speakers against living before: kitchen ${before[0]} ms, den ${before[1]} ms"

step "calibrate kitchen and den against living"
latency() { ctl status | field "s['rows'][$1]['latencyMs']"; }
declare -A stored
k=0
for s in kitchen den; do
    k=$((k + 1))
    was=$(latency $k)
    ctl calibrate $k 0 microphone --apply >"$work/calibrate-$s" 2>&1 || fail "calibrate $s: $(cat "$work/calibrate-$s")"
    now=$(latency $k)
    stored[$s]=$(awk -v a="$now" -v b="$was" 'BEGIN { printf "%.3f", a - b }')
    echo "$(cat "$work/calibrate-$s"), stored $(printf %s "${stored[$s]}") ms"
done
mapfile -t after < <(offsets offsets-after)
echo "speakers against living after: kitchen ${after[0]} ms, den ${after[1]} ms"

status=0
report() {
    local words=$1 k=0 s
    shift
    local line=
    for s in kitchen den; do
        local v
        v=$(awk -v x="$1" 'BEGIN { printf "%+.3f", x }')
        line+="${line:+, }$s $v ms"
        awk -v x="$1" -v lim="$LIMIT_MS" 'BEGIN { exit !(x > lim || x < -lim) }' && status=1
        shift
    done
    echo "$words: $line"
}
truth() { awk -v o="$1" -v d="${ROOM_ARRIVAL[$2]}" -v r="${ROOM_ARRIVAL[living]}" 'BEGIN { print o + d - r }'; }
report "calibration error" \
    "$(awk -v v="${stored[kitchen]}" -v t="$(truth "${before[0]}" kitchen)" 'BEGIN { print v - t }')" \
    "$(awk -v v="${stored[den]}" -v t="$(truth "${before[1]}" den)" 'BEGIN { print v - t }')"
report "meeting at the microphone" "$(truth "${after[0]}" kitchen)" "$(truth "${after[1]}" den)"
echo "server: $server, load: $(cut -d' ' -f1-3 /proc/loadavg)"
terminate
exit "$status"
