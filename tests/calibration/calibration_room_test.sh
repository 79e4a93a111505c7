#!/usr/bin/env bash
# The microphone method on the virtual room (tests/support/virtual-room.sh)
# against the real app, in one launch: each speaker's delay to the
# microphone is measured from the sound first, then `vellatonectl calibrate`
# must store for the 48 kHz "kitchen" and the 44.1 kHz "den" what the
# microphone hears against "living" to within LIMIT_MS; and the failures
# say their sentences with real parts: no microphone at all, a muted one,
# and a room of reflections only.
#
#   calibration_room_test.sh BIN REPO
set -euo pipefail
BIN=$1
REPO=$2
LIMIT_MS=${LIMIT_MS:-0.5}
# On PipeWire the speakers' offsets, recorded while the app plays noise, now
# and then come out silent, and kitchen's stored latency sits 0.1-0.6 ms
# late of the truth there: not steady enough to hold to 0.5 ms in every run.
# VELLATONE_ROOM_ON_PIPEWIRE=1 runs it all the same.
if [[ ${VELLATONE_TEST_SERVER:-pulseaudio} == pipewire && -z ${VELLATONE_ROOM_ON_PIPEWIRE:-} ]]; then
    echo "skipped on PipeWire"
    exit 77
fi
# shellcheck source=../support/app_test.sh
source "$REPO/tests/support/app_test.sh"
# shellcheck source=../support/virtual-room.sh
source "$REPO/tests/support/virtual-room.sh"
ROOM_TRUTH_SECONDS=2

noise_pid=
app_test_on_exit() {
    [[ -n $noise_pid ]] && { kill "$noise_pid" 2>/dev/null; wait "$noise_pid" 2>/dev/null; }
    room_end
}
app_test_extra_logs="room.err room-truth.err room-filter.log offsets-*.out"
app_test_begin vellatone-calibration living:48000:Living kitchen:48000:Kitchen den:44100:Den
began=$SECONDS

# Kitchen's wall is louder than kitchen itself: the arrival is the first
# rise, not the peak.
room_begin living=75 kitchen=95,98.5@1.6 den=130@0.8 || fail "no room"
launch 1
for s in living kitchen den; do ctl add "uid:$s" >/dev/null || fail "add $s"; done
ctl start >/dev/null || fail "start"

# Succeeds when calibrating SLOT fails with a sentence starting with WORDS.
fails_with() {
    local slot=$1 words=$2
    if ctl calibrate "$slot" 0 microphone >"$work/calibrate" 2>&1; then
        fail "calibrate $slot succeeded: $(cat "$work/calibrate")"
    fi
    grep -qF "$words" "$work/calibrate" || fail "calibrate $slot said: $(cat "$work/calibrate")"
}

step "no microphone: the default source is a monitor"
room_mic_off || fail "the microphone was not taken away"
fails_with 1 "No microphone. Try tapping along instead."
room_mic_on || fail "the microphone did not come back"

step "the truth: each speaker's delay to the microphone, and the speakers' offsets"
room_truth living kitchen den || fail "the room's arrivals were not measured: $(cat "$work/room-truth.out")"
sox -n -r 48000 -c 2 -b 32 -e floating-point -t raw "$work/noise.raw" \
    synth 6 whitenoise vol 0.5 sinc -12k 2>/dev/null
# Each speaker's offset against living, while the app plays noise to all.
offsets() {
    pacat --playback --rate=48000 --channels=2 --format=float32le --latency-msec=100 \
        --client-name=calibration-noise <"$work/noise.raw" &
    noise_pid=$!
    # On PipeWire a recording begun while the noise's stream is still being
    # linked now and then hears the speakers silent throughout: wait until
    # the server lists the stream, and half a second for its sound to reach
    # the speakers through the app.
    local _
    for _ in $(seq 50); do
        pactl list sink-inputs 2>/dev/null | grep -q 'application.name = "calibration-noise"' && break
        sleep 0.05
    done
    sleep 0.5
    room_measure "$1" --latency 'living->kitchen' --latency 'living->den' -- living kitchen den ||
        fail "the speakers were not recorded: $(cat "$work/$1.out")"
    kill "$noise_pid"; wait "$noise_pid" 2>/dev/null || true; noise_pid=
    local s offset
    for s in kitchen den; do
        offset=$(sed -n "s/^latency living->$s: \([-0-9.]*\) ms.*/\1/p" "$work/$1.out")
        [[ -n $offset ]] || fail "no offset for $s: $(cat "$work/$1.out")"
        echo "$offset"
    done
}
mapfile -t before < <(offsets offsets-before)
[[ ${#before[@]} -eq 2 ]] || fail "the speakers' offsets were not measured: $(cat "$work/offsets-before.out")"

step "calibrate kitchen and den against living"
latency() { ctl status | field "s['rows'][$1]['latencyMs']"; }
declare -A stored
k=0
for s in kitchen den; do
    k=$((k + 1))
    was=$(latency $k)
    ctl calibrate $k 0 microphone --apply >"$work/calibrate-$s" 2>&1 || fail "calibrate $s: $(cat "$work/calibrate-$s")"
    stored[$s]=$(awk -v now="$(latency $k)" -v was="$was" 'BEGIN { print now - was }')
done
# The engine's own output may have moved a little between measuring its
# offsets and calibrating; the truth is taken from both sides of the
# calibration, the offsets after less what was stored.
mapfile -t after < <(offsets offsets-after)
[[ ${#after[@]} -eq 2 ]] || fail "the speakers' offsets were not measured again: $(cat "$work/offsets-after.out")"
k=0
for s in kitchen den; do
    truth=$(awk -v b="${before[k]}" -v a="${after[k]}" -v v="${stored[$s]}" \
        -v d="${ROOM_ARRIVAL[$s]}" -v r="${ROOM_ARRIVAL[living]}" 'BEGIN { print (b + a + v) / 2 + d - r }')
    error=$(awk -v v="${stored[$s]}" -v t="$truth" 'BEGIN { printf "%+.3f", v - t }')
    moved=$(awk -v b="${before[k]}" -v a="${after[k]}" -v v="${stored[$s]}" 'BEGIN { printf "%+.3f", a + v - b }')
    echo "$s: $(cat "$work/calibrate-$s"), against the truth $error ms (the engine's output moved $moved ms meanwhile)"
    awk -v e="$error" -v lim="$LIMIT_MS" 'BEGIN { exit !(e > lim || e < -lim) }' &&
        fail "$s stored $error ms from the truth"
    k=$((k + 1))
done

step "a muted microphone hears nothing"
pactl set-source-mute roommic 1
fails_with 1 "Could not hear the test sound."
pactl set-source-mute roommic 0

step "a room of reflections only"
# Each speaker reaches the microphone only off the walls, the loudest path
# 15 ms after the first.
room_paths living=75@0.3,83@0.6,90 kitchen=95@0.3,103@0.6,110 || fail "the room did not change"
fails_with 1 "Mostly heard the room rather than the speaker."

terminate
echo "took $((SECONDS - began)) s on $server, load $(cut -d' ' -f1-3 /proc/loadavg)"
