#!/usr/bin/env bash
# Measures how well the engine holds three outputs in time on a real sound
# server: a private PulseAudio with null sinks "living" (48 kHz), "kitchen"
# (44.1 kHz) and "den" (48 kHz) as speakers, the engine playing to them with
# delays 0, 0 and 100 ms, noise played into the capture sink, and all monitors
# recorded from one process.
#
#   DURATION=60 scripts/measure-sync.sh        # seconds recorded (default 60)
#   LIMIT_MS=0.5 scripts/measure-sync.sh       # exit 1 above this error or on a dropout
#   BIN=build/bin                              # where the binaries are
#   NICE=-15                                   # priority of the measured processes
#
# Sound servers and their clients run at raised priority on a desktop; on a
# shared test machine the measured processes get a raised priority too (when
# allowed), so that what is measured is the engine and not the neighbours.
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
DURATION=${DURATION:-60}
BIN=${BIN:-$here/build/bin}
LIMIT_MS=${LIMIT_MS:-}
SETTLE=${SETTLE:-4}
NICE=${NICE:--15}
# A plain command prefix, not a function: a backgrounded function would run
# in a subshell, and $! would not be the process to stop.
raised=()
nice -n "$NICE" true 2>/dev/null && raised=(nice -n "$NICE")

for tool in vellatone-engine-run vellatone-syncmeter; do
    [[ -x $BIN/$tool ]] || { echo "measure-sync: $BIN/$tool is missing; build it first" >&2; exit 2; }
done
for cmd in pulseaudio pactl pacat sox; do
    command -v "$cmd" >/dev/null || { echo "measure-sync: $cmd is not installed" >&2; exit 2; }
done

work=$(mktemp -d /tmp/vellatone-sync.XXXXXX)

engine_pid= noise_pid= pulse_started=
cleanup() {
    [[ -n $noise_pid ]] && kill "$noise_pid" 2>/dev/null || true
    if [[ -n $engine_pid ]]; then
        kill -TERM "$engine_pid" 2>/dev/null || true
        wait "$engine_pid" 2>/dev/null || true
    fi
    [[ -n $pulse_started ]] && "$here/scripts/private-pulse.sh" stop "$work/pulse" >/dev/null 2>&1 || true
    if [[ -z ${KEEP_WORK:-} ]]; then rm -rf "$work"; else echo "measure-sync: kept $work" >&2; fi
}
trap cleanup EXIT

unset PULSE_SINK PULSE_SOURCE PULSE_SERVER
pulse_started=1
eval "$("$here/scripts/private-pulse.sh" start "$work/pulse" \
    living:48000:Living kitchen:44100:Kitchen den:48000:Den)"
[[ -n ${PULSE_SERVER:-} ]] || { echo "measure-sync: no private PulseAudio" >&2; exit 2; }
# Every thread of the server: the speakers' sink threads already exist.
pa_pid=$(cat "$work/pulse/runtime/pulse/pid")
renice -n "$NICE" -p $(ls "/proc/$pa_pid/task") >/dev/null 2>&1 || true

"${raised[@]}" "$BIN/vellatone-engine-run" --seconds $((DURATION + SETTLE + 30)) \
    living=0 kitchen=0 den=100 >"$work/engine.out" 2>"$work/engine.err" &
engine_pid=$!
for _ in $(seq 100); do
    [[ $(grep -c ' open$' "$work/engine.out" 2>/dev/null) -ge 3 ]] && break
    kill -0 "$engine_pid" 2>/dev/null || { cat "$work/engine.err" >&2; exit 2; }
    sleep 0.1
done
if [[ $(grep -c ' open$' "$work/engine.out") -lt 3 ]]; then
    echo "measure-sync: the engine did not open all three speakers" >&2
    cat "$work/engine.out" "$work/engine.err" >&2
    exit 2
fi

# Band-limited noise, so that the 44.1 kHz speaker carries the same sound.
# Made in advance: a generator that falls behind under load would put gaps
# into the signal that are no fault of the engine.
sox -n -r 48000 -c 2 -b 32 -e floating-point -t raw "$work/noise.raw" \
    synth $((DURATION + SETTLE + 20)) whitenoise vol 0.5 sinc -12k 2>/dev/null
"${raised[@]}" pacat --playback -d vellatone --rate=48000 --channels=2 --format=float32le \
    --latency-msec=100 --client-name=measure-sync-noise <"$work/noise.raw" 2>"$work/noise.err" &
noise_pid=$!

# An idle null sink renders far ahead; measure once audio flows in small blocks.
sleep "$SETTLE"

limit=()
[[ -n $LIMIT_MS ]] && limit=(--limit-ms "$LIMIT_MS")
status=0
"${raised[@]}" "$BIN/vellatone-syncmeter" --seconds "$DURATION" --windows 12 "${limit[@]}" \
    --expect living-kitchen=0 --expect living-den=100 --latency 'capture->living' \
    living=living.monitor kitchen=kitchen.monitor den=den.monitor capture=vellatone.monitor \
    2>"$work/syncmeter.err" || status=$?
[[ -n ${VERBOSE:-} ]] && cat "$work/syncmeter.err" "$work/engine.err" >&2
exit "$status"
