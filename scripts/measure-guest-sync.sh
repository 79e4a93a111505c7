#!/usr/bin/env bash
# Measures how well a guest's web page plays in time with a speaker, with the
# real application: a private PulseAudio (48 kHz) with a speaker sink "living"
# and a sink "phone" that headless Chromium plays into; vellatone --headless
# with "living" and the page as its rows, started with vellatonectl; noise
# played into the capture sink; both monitors recorded from one process and
# cross-correlated. Nothing is told the guest's latency: the app's own delay
# plan has to line the two up.
#
#   DURATION=60 scripts/measure-guest-sync.sh   # seconds recorded (default 60)
#   PLAYER=scheduled scripts/measure-guest-sync.sh
#                       # the page's player: worklet (default) or scheduled,
#                       # the path of a phone on the plain http link
#   LIMIT_MS=2 scripts/measure-guest-sync.sh    # exit 1 above this error
#   BIN=build/bin                               # where the binaries are
#   NICE=-15                                    # priority of the measured processes
#
# As in measure-sync.sh, the measured processes (the sound server, the app,
# the browser, the recorder) get a raised priority where allowed: on a shared
# test machine a browser starved of its audio deadlines moves its own output.
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
DURATION=${DURATION:-60}
BIN=${BIN:-$here/build/bin}
LIMIT_MS=${LIMIT_MS:-}
SETTLE=${SETTLE:-10}
PLAYER=${PLAYER:-worklet}
NICE=${NICE:--15}
# A plain command prefix, not a function: $! must be the process to stop.
raised=()
nice -n "$NICE" true 2>/dev/null && raised=(nice -n "$NICE")
e2e=$here/tests/guests/e2e

case $PLAYER in
    worklet) query= ;;
    scheduled) query='?scheduled' ;;
    *) echo "measure-guest-sync: PLAYER is worklet or scheduled" >&2; exit 2 ;;
esac
for tool in vellatone vellatonectl vellatone-syncmeter; do
    [[ -x $BIN/$tool ]] || { echo "measure-guest-sync: $BIN/$tool is missing; build it first" >&2; exit 2; }
done
for cmd in pulseaudio pactl pacat sox chromium node; do
    command -v "$cmd" >/dev/null || { echo "measure-guest-sync: $cmd is not installed" >&2; exit 2; }
done
if [[ ! -d $e2e/node_modules/playwright-core ]]; then
    (cd "$e2e" && PLAYWRIGHT_SKIP_BROWSER_DOWNLOAD=1 npm ci --no-audit --no-fund >/dev/null)
fi

work=$(mktemp -d /tmp/vellatone-guest-sync.XXXXXX)
app_pid= page_pid= noise_pid= pulse_started=
cleanup() {
    for pid in $noise_pid $page_pid; do kill "$pid" 2>/dev/null || true; done
    [[ -n $page_pid ]] && wait "$page_pid" 2>/dev/null || true
    if [[ -n $app_pid ]]; then
        kill -TERM "$app_pid" 2>/dev/null || true
        wait "$app_pid" 2>/dev/null || true
    fi
    [[ -n $pulse_started ]] && "$here/scripts/private-pulse.sh" stop "$work/pulse" >/dev/null 2>&1 || true
    if [[ -z ${KEEP_WORK:-} ]]; then rm -rf "$work"; else echo "measure-guest-sync: kept $work" >&2; fi
}
trap cleanup EXIT
fail() {
    echo "measure-guest-sync: $*" >&2
    for f in "$work"/*.err "$work"/*.out; do [[ -s $f ]] && { echo "--- $f" >&2; tail -20 "$f" >&2; }; done
    exit 2
}

unset PULSE_SINK PULSE_SOURCE PULSE_SERVER
pulse_started=1
eval "$("$here/scripts/private-pulse.sh" start "$work/pulse" living:48000:Living phone:48000:Phone)"
[[ -n ${PULSE_SERVER:-} ]] || fail "no private PulseAudio"
pa_pid=$(cat "$work/pulse/runtime/pulse/pid")
renice -n "$NICE" -p $(ls "/proc/$pa_pid/task") >/dev/null 2>&1 || true

export VELLATONE_CONFIG_DIR=$work/config VELLATONE_CONTROL_SOCKET=$work/control/control.sock
export VELLATONE_GUEST_BIND=127.0.0.1 VELLATONE_GUEST_PORT=0 HOME=$work/home
mkdir -p "$HOME"
ctl() { "$BIN/vellatonectl" "$@"; }
"${raised[@]}" "$BIN/vellatone" --headless 2>"$work/app.err" &
app_pid=$!
for _ in $(seq 100); do
    ctl status >/dev/null 2>&1 && break
    kill -0 "$app_pid" 2>/dev/null || fail "the app exited at launch"
    sleep 0.1
done
ctl add uid:living >/dev/null || fail "the app did not add living"
ctl start || fail "the app did not start"
port=
for _ in $(seq 100); do
    port=$(sed -n 's/^vellatone: guest server on port //p' "$work/app.err")
    [[ -n $port ]] && break
    sleep 0.1
done
[[ -n $port ]] || fail "the guest server did not start"

sox -n -r 48000 -c 2 -b 32 -e floating-point -t raw "$work/noise.raw" \
    synth $((DURATION + SETTLE + 40)) whitenoise vol 0.5 2>/dev/null
"${raised[@]}" pacat --playback -d vellatone --rate=48000 --channels=2 --format=float32le \
    --latency-msec=100 --client-name=measure-guest-noise <"$work/noise.raw" &
noise_pid=$!

# The app took the default sink; the page keeps to the phone's.
PULSE_SINK=phone PAGE_QUERY=$query "${raised[@]}" node "$e2e/play-guest.mjs" "$port" $((DURATION + SETTLE + 30)) \
    >"$work/page.out" 2>"$work/page.err" &
page_pid=$!
for _ in $(seq 300); do
    grep -q '^playing' "$work/page.out" 2>/dev/null && break
    kill -0 "$page_pid" 2>/dev/null || fail "the page ended"
    sleep 0.1
done
grep -q '^playing' "$work/page.out" || fail "the page never played"
phone_id=$(pactl list short sinks | awk '$2 == "phone" {print $1}')
pactl list short sink-inputs | awk '{print $2}' | grep -qx "$phone_id" || fail "nothing plays into phone"
ctl status | grep -q '"name":"Guest · Meter"' || fail "the page is not a row of the app"

# Let the clock exchanges, the output mapping and the delay plan settle.
sleep "$SETTLE"

limit=()
[[ -n $LIMIT_MS ]] && limit=(--limit-ms "$LIMIT_MS")
status=0
"${raised[@]}" "$BIN/vellatone-syncmeter" --seconds "$DURATION" --windows 12 "${limit[@]}" \
    --expect guest-speaker=0 guest=phone.monitor speaker=living.monitor \
    2>"$work/syncmeter.err" || status=$?
if [[ -n ${VERBOSE:-} ]]; then
    cat "$work/syncmeter.err" "$work/page.err" >&2
    ctl status >&2
fi
exit "$status"
