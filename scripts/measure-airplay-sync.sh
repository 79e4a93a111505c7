#!/usr/bin/env bash
# Measures how well an AirPlay receiver plays in time with a local speaker,
# with real parts: Debian's shairport-sync on one host of the network
# namespace rig, playing through its "pa" backend into the sink "airport"
# (the receiver's room), and vellatone --headless on the other host, which
# finds it by discovery alone and plays to it through vellatone-airplay. A
# private sound server (PulseAudio, or PipeWire with
# VELLATONE_TEST_SERVER=pipewire) has the speaker "living" and "airport";
# noise is played into the capture sink, and once the receiver streams both
# monitors are recorded from one process, each placed in time by the
# server's timing snapshots.
#
#   DURATION=60            seconds recorded (default 60)
#   LIMIT_MS=2             exit 1 above this error
#   BIN=build/bin          where the binaries are
#
# Prints "airplay lead: N ms" (from Start to the receiver's first sound,
# read from a recording of the receiver's room begun before Start) and
# "alignment airplay-speaker: median error X ms, max error Y ms".
set -euo pipefail
REPO=$(cd "$(dirname "$0")/.." && pwd)
BIN=$(realpath "${BIN:-$REPO/build/bin}")
DURATION=${DURATION:-60}
LIMIT_MS=${LIMIT_MS:-}

source "$REPO/tests/support/netns-rig.sh"
if reason=$(rig_skip_reason) && [[ -n $reason ]]; then
    echo "measure-airplay-sync: skipped: $reason" >&2
    exit 77
fi
for tool in vellatone vellatonectl vellatone-airplay vellatone-syncmeter; do
    [[ -x $BIN/$tool ]] || { echo "measure-airplay-sync: $BIN/$tool is missing; build it first" >&2; exit 2; }
done
for cmd in shairport-sync pacat parec sox python3; do
    command -v "$cmd" >/dev/null || { echo "measure-airplay-sync: $cmd is not installed" >&2; exit 2; }
done

source "$REPO/tests/support/app_test.sh"
app_test_on_exit() {
    [[ -n ${room_pid:-} ]] && kill "$room_pid" 2>/dev/null
    [[ -n ${noise_pid:-} ]] && kill "$noise_pid" 2>/dev/null
    rig_down
}
app_test_begin vellatone-airplay-sync living:48000:Living airport:44100:Airport
export VELLATONE_CLIAIRPLAY=$BIN/vellatone-airplay

step "two hosts; shairport-sync on b, found by discovery from a"
rig_up "$work/rig" || fail "the rig did not come up"
cat >"$work/shairport.conf" <<CONF
general = { name = "Kitchen"; port = 5000; output_backend = "pa"; mdns_backend = "avahi"; udp_port_base = 6001; };
pa = { server = "$PULSE_SERVER"; sink = "airport"; };
CONF
rig_bg b bash -c "exec shairport-sync -c '$work/shairport.conf' -u >'$work/receiver.log' 2>&1"
(rig_exec a "$BIN/vellatone" --headless 2>"$work/app1.log") &
app_pid=$!
await_app
await_outputs '^air:Kitchen\tairplay\tKitchen\tAirPlay$'

step "a speaker and the receiver, playing noise"
ctl add uid:living >/dev/null || fail "add uid:living"
ctl add air:Kitchen >/dev/null || fail "add air:Kitchen"
# Band-limited, so that the 44.1 kHz room carries the same sound.
sox -n -r 48000 -c 2 -b 32 -e floating-point -t raw "$work/noise.raw" \
    synth $((DURATION + 60)) whitenoise vol 0.5 sinc -12k 2>/dev/null
# The receiver's room, recorded from before Start, gives the lead.
parec -d airport.monitor --rate=44100 --channels=1 --format=s16le --latency-msec=10 \
    >"$work/room.raw" 2>/dev/null &
room_pid=$!
sleep 1
room_began=$(python3 -c "import os; print(os.path.getsize('$work/room.raw'))")
ctl start >/dev/null || fail "start"
pacat --playback -d vellatone --rate=48000 --channels=2 --format=float32le --latency-msec=100 \
    --client-name=measure-airplay-noise <"$work/noise.raw" &
noise_pid=$!

airplay_words() { ctl status | field "[r['transport'] for r in s['rows'] if r['kind']=='airplay'][0]"; }
for _ in $(seq 300); do
    airplay_words | grep -q 'streaming · .* s lag' && break
    sleep 0.1
done
airplay_words | grep -q 'streaming · .* s lag' || fail "the receiver never streamed: $(airplay_words)"
sleep 4
kill "$room_pid" 2>/dev/null
room_pid=
# Samples recorded after Start: the first loud one is the receiver's first sound.
lead=$(python3 - "$work/room.raw" "$room_began" <<'PY'
import array, sys
data = open(sys.argv[1], 'rb').read()[int(sys.argv[2]) // 2 * 2:]
a = array.array('h', data)
first = next((i for i, x in enumerate(a) if abs(x) > 1000), None)
print('none' if first is None else round(first / 44.1))
PY
)
echo "airplay row: $(airplay_words)"

limit=()
[[ -n $LIMIT_MS ]] && limit=(--limit-ms "$LIMIT_MS")
status=0
"$BIN/vellatone-syncmeter" --seconds "$DURATION" --windows 12 "${limit[@]}" --expect airplay-speaker=0 \
    speaker=living.monitor airplay=airport.monitor 2>"$work/syncmeter.err" >"$work/syncmeter.out" ||
    status=$?
kill "$noise_pid" 2>/dev/null || true
echo "airplay lead: $lead ms"
grep -E '^(alignment|dropouts|silence)' "$work/syncmeter.out" || cat "$work/syncmeter.err"
[[ -n ${VERBOSE:-} ]] && cat "$work/syncmeter.err"
if [[ $status -ne 0 ]]; then fail "alignment outside ${LIMIT_MS:-?} ms"; fi
exit 0
