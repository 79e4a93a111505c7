#!/usr/bin/env bash
# Measures how well the engine holds three outputs in time on a real sound
# server: a private PulseAudio (or, with VELLATONE_TEST_SERVER=pipewire,
# PipeWire with pipewire-pulse) with null sinks "living" (48 kHz), "kitchen"
# (44.1 kHz) and "den" (48 kHz) as speakers, the engine playing to them with
# delays 0, 0 and 100 ms, noise played into the capture sink, and all
# monitors recorded at once.
#
# On PulseAudio the monitors are recorded as streams of one process, each
# placed in time by the server's raw timing snapshots (accurate to about
# 10 us there). On pipewire-pulse those snapshots scatter by 1-1.5 ms, so
# there one pw-record node with a channel per monitor is linked to every
# monitor port and records them all in the same graph cycle. Linking them
# puts every sink into one graph with one driver, and the driving sink's
# monitor reaches the recorder a cycle (a quantum, 5.3 ms) late, since the
# driver runs last in its cycle: an extra sink that nobody plays to drives
# the graph instead (the highest priority.driver wins).
#
#   DURATION=60 scripts/measure-sync.sh        # seconds recorded (default 60)
#   LIMIT_MS=0.1 scripts/measure-sync.sh       # exit 1 above this error, or on a speaker
#                                              # silent over 5 ms longer than the capture
#   LIMIT_MS_PIPEWIRE=0.5                      # the same on PipeWire (LIMIT_MS if unset)
#   BIN=build/bin                              # where the binaries are
#   NICE=-15                                   # priority of the measured processes
#   SERVER_DEBUG=1                             # PulseAudio logs underruns and rewinds (KEEP_WORK)
#   STALL_MS=80                                # stop the engine this long every 2.5 s: its
#                                              # speakers' gaps must stay within the stall
#   SERVER_STALL_MS=80                         # stop the sound server (pipewire-pulse on
#                                              # PipeWire) instead: the capture comes late
#
# Sound servers and their clients run at raised priority on a desktop; on a
# shared test machine the measured processes get a raised priority too (when
# allowed), so that what is measured is the engine and not the neighbours.
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
DURATION=${DURATION:-60}
BIN=${BIN:-$here/build/bin}
LIMIT_MS=${LIMIT_MS:-}
# The stream clocks draw their lines through four seconds of timing.
SETTLE=${SETTLE:-6}
# PipeWire: seconds recorded after the measured ones and left out (see below).
RECORD_TAIL=1
NICE=${NICE:--15}
# A plain command prefix, not a function: a backgrounded function would run
# in a subshell, and $! would not be the process to stop.
raised=()
nice -n "$NICE" true 2>/dev/null && raised=(nice -n "$NICE")

for tool in vellatone-engine-run vellatone-syncmeter; do
    [[ -x $BIN/$tool ]] || { echo "measure-sync: $BIN/$tool is missing; build it first" >&2; exit 2; }
done
server=${VELLATONE_TEST_SERVER:-pulseaudio}
needed=(pactl pacat sox)
[[ $server == pipewire ]] && needed+=(pipewire pw-record pw-link) || needed+=(pulseaudio)
for cmd in "${needed[@]}"; do
    command -v "$cmd" >/dev/null || { echo "measure-sync: $cmd is not installed" >&2; exit 2; }
done

work=$(mktemp -d /tmp/vellatone-sync.XXXXXX)

engine_pid= noise_pid= pulse_started= record_pid= staller_pid= stalled=
cleanup() {
    if [[ -n $staller_pid ]]; then
        kill "$staller_pid" 2>/dev/null || true
        wait "$staller_pid" 2>/dev/null || true
        kill -CONT "$stalled" 2>/dev/null || true
    fi
    [[ -n $noise_pid ]] && kill "$noise_pid" 2>/dev/null || true
    [[ -n $record_pid ]] && kill "$record_pid" 2>/dev/null || true
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
server=$("$here/scripts/private-pulse.sh" which "$work/pulse")
# Every thread of the server: the speakers' sink threads already exist.
if [[ $server == pulseaudio ]]; then
    pa_pid=$(cat "$work/pulse/runtime/pulse/pid")
    renice -n "$NICE" -p $(ls "/proc/$pa_pid/task") >/dev/null 2>&1 || true
    if [[ -n ${SERVER_DEBUG:-} ]]; then
        pactl load-module module-cli-protocol-unix >/dev/null
        pacmd set-log-time 1 >/dev/null
        pacmd set-log-level 4 >/dev/null
    fi
else
    for name in pipewire wireplumber pipewire-pulse; do
        for pid in $(pgrep -x "$name" 2>/dev/null); do
            [[ $(tr '\0' '\n' 2>/dev/null <"/proc/$pid/environ" | grep -c "^XDG_RUNTIME_DIR=$XDG_RUNTIME_DIR\$") -gt 0 ]] &&
                renice -n "$NICE" -p $(ls "/proc/$pid/task") >/dev/null 2>&1 || true
        done
    done
fi

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

# PipeWire: the recorder and its links are made before any sound flows, so
# that the graph has settled into its one driver by then.
monitors=(living kitchen den vellatone)
if [[ $server == pipewire ]]; then
    pactl load-module module-null-sink sink_name=vellatone_meter_clock rate=48000 channels=2 \
        sink_properties=priority.driver=30000 >/dev/null
    "${raised[@]}" pw-record --target 0 --rate 48000 --channels 5 \
        --channel-map AUX0,AUX1,AUX2,AUX3,AUX4 --format f32 \
        -P '{ node.name = "vellatone-syncmeter" }' - >"$work/monitors.raw" 2>"$work/record.err" &
    record_pid=$!
    for _ in $(seq 100); do pw-link -i 2>/dev/null | grep -q '^vellatone-syncmeter:input_AUX4$' && break; sleep 0.05; done
    k=0
    for sink in "${monitors[@]}" vellatone_meter_clock; do
        pw-link "$sink:monitor_FL" "vellatone-syncmeter:input_AUX$k" ||
            { echo "measure-sync: cannot link $sink's monitor to the recorder" >&2; exit 2; }
        k=$((k + 1))
    done
    recording_started=$(date +%s.%N)
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

# A client that stalls (a busy machine, a page fault) misses the server's
# requests and its streams underrun for the length of the stall, minus what
# was queued; nothing after it may stay silent for longer.
# A server that stalls hands the capture its audio late, in one burst.
stalled=$engine_pid
if [[ -n ${SERVER_STALL_MS:-} ]]; then
    STALL_MS=$SERVER_STALL_MS
    if [[ $server == pulseaudio ]]; then
        stalled=$pa_pid
    else
        stalled=$(cat "$work/pulse/pids/pipewire-pulse")
    fi
fi
if [[ -n ${STALL_MS:-} ]]; then
    (
        trap 'kill -CONT "$stalled" 2>/dev/null; exit 0' TERM
        pause=$(awk -v ms="$STALL_MS" 'BEGIN { print ms / 1000 }')
        while :; do
            sleep 2.5
            kill -STOP "$stalled" 2>/dev/null || exit 0
            sleep "$pause"
            kill -CONT "$stalled" 2>/dev/null || exit 0
        done
    ) &
    staller_pid=$!
fi

limit=()
[[ $server == pipewire && -n ${LIMIT_MS_PIPEWIRE:-} ]] && LIMIT_MS=$LIMIT_MS_PIPEWIRE
[[ -n $LIMIT_MS ]] && limit=(--limit-ms "$LIMIT_MS")
checks=(--expect living-kitchen=0 --expect living-den=100 --latency 'capture->living' --capture capture)
status=0
if [[ $server == pipewire ]]; then
    skip=$(awk -v now="$(date +%s.%N)" -v then="$recording_started" 'BEGIN { print now - then }')
    sleep "$DURATION"
    sleep "$RECORD_TAIL"
    kill "$record_pid"
    wait "$record_pid" 2>/dev/null || true
    record_pid=
    # Only what was recorded before the recorder began to go is measured. As
    # pw-record ends, its ports are unlinked one by one, and each sink left
    # without a link drives a graph of its own again: the last moments of the
    # file mix two timings, and a speaker stood a quantum (5.3 ms) off there.
    frames=$(awk -v s="$skip" -v d="$DURATION" 'BEGIN { printf "%d", (s + d) * 48000 }')
    truncate -s "$((frames * 5 * 4))" "$work/monitors.raw"
    "${raised[@]}" "$BIN/vellatone-syncmeter" --raw "$work/monitors.raw" --rate 48000 \
        --channels 5 --skip "$skip" --windows 12 "${limit[@]}" "${checks[@]}" \
        living=living:monitor_FL kitchen=kitchen:monitor_FL den=den:monitor_FL \
        capture=vellatone:monitor_FL 2>"$work/syncmeter.err" || status=$?
else
    "${raised[@]}" "$BIN/vellatone-syncmeter" --seconds "$DURATION" --windows 12 "${limit[@]}" \
        "${checks[@]}" living=living.monitor kitchen=kitchen.monitor den=den.monitor \
        capture=vellatone.monitor 2>"$work/syncmeter.err" || status=$?
fi
# A failed run keeps what the server had in its graph, for whoever looks.
if [[ $status != 0 && -n ${KEEP_WORK:-} ]]; then
    pactl list sink-inputs >"$work/sink-inputs.txt" 2>&1 || true
    pactl list sinks >"$work/sinks.txt" 2>&1 || true
    [[ $server == pipewire ]] && { pw-dump >"$work/pw-dump.json" 2>&1 || true; }
fi
# Whose a gap is: the server finding one of our streams empty (underruns), or
# the engine left without captured audio for a speaker (starved).
awk '/ frames starved$/ { last[$1] = $4 " underruns, " $6 " frames starved" }
     END { for (s in last) print "engine " s ": " last[s] }' "$work/engine.err" | sort
[[ -n ${VERBOSE:-} ]] && cat "$work/syncmeter.err" "$work/engine.err" >&2
exit "$status"
