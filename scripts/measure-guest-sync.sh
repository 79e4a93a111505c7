#!/usr/bin/env bash
# Measures how well a guest's web page plays in time with a speaker: a private
# PulseAudio (48 kHz default rate) with a speaker sink "living" and a sink
# "phone" that headless Chromium plays into, the guest host with the speaker
# delayed by the guest's stated stream latency, noise played into the capture
# sink, and both monitors recorded from one process and cross-correlated.
#
#   DURATION=60 scripts/measure-guest-sync.sh   # seconds recorded (default 60)
#   LIMIT_MS=2 scripts/measure-guest-sync.sh    # exit 1 above this error
#   BIN=build/bin                               # where the binaries are
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
DURATION=${DURATION:-60}
BIN=${BIN:-$here/build/bin}
LIMIT_MS=${LIMIT_MS:-}
SETTLE=${SETTLE:-10}
e2e=$here/tests/guests/e2e

for tool in vellatone-guest-host vellatone-syncmeter; do
    [[ -x $BIN/$tool ]] || { echo "measure-guest-sync: $BIN/$tool is missing; build it first" >&2; exit 2; }
done
for cmd in pulseaudio pactl pacat sox chromium node; do
    command -v "$cmd" >/dev/null || { echo "measure-guest-sync: $cmd is not installed" >&2; exit 2; }
done
if [[ ! -d $e2e/node_modules/playwright-core ]]; then
    (cd "$e2e" && PLAYWRIGHT_SKIP_BROWSER_DOWNLOAD=1 npm ci --no-audit --no-fund >/dev/null)
fi

work=$(mktemp -d /tmp/vellatone-guest-sync.XXXXXX)
host_pid= page_pid= noise_pid= pulse_started=
cleanup() {
    for pid in $noise_pid $page_pid; do kill "$pid" 2>/dev/null || true; done
    if [[ -n $host_pid ]]; then
        kill -TERM "$host_pid" 2>/dev/null || true
        wait "$host_pid" 2>/dev/null || true
    fi
    [[ -n $pulse_started ]] && "$here/scripts/private-pulse.sh" stop "$work/pulse" >/dev/null 2>&1 || true
    if [[ -z ${KEEP_WORK:-} ]]; then rm -rf "$work"; else echo "measure-guest-sync: kept $work" >&2; fi
}
trap cleanup EXIT

unset PULSE_SINK PULSE_SOURCE PULSE_SERVER
pulse_started=1
eval "$("$here/scripts/private-pulse.sh" start "$work/pulse" living:48000:Living phone:48000:Phone)"
[[ -n ${PULSE_SERVER:-} ]] || { echo "measure-guest-sync: no private PulseAudio" >&2; exit 2; }
# Chromium plays to the default sink: the phone's.
pactl set-default-sink phone

# The guest is heard at its render time plus the lead and the page's headroom;
# the speaker waits that long too.
latency_ms=$(( ${VELLATONE_SENDSPIN_LEAD_MS:-500} + 200 ))
mkfifo "$work/host.in"
"$BIN/vellatone-guest-host" --root "$here/web/guest" --speaker "living=$latency_ms" \
    --seconds $((DURATION + SETTLE + 60)) <"$work/host.in" >"$work/host.out" 2>"$work/host.err" &
host_pid=$!
exec 3>"$work/host.in"
port=
for _ in $(seq 100); do
    port=$(sed -n 's/^listening //p' "$work/host.out" 2>/dev/null)
    [[ -n $port ]] && break
    kill -0 "$host_pid" 2>/dev/null || { cat "$work/host.err" >&2; exit 2; }
    sleep 0.1
done
[[ -n $port ]] || { echo "measure-guest-sync: the guest host did not start" >&2; exit 2; }

sox -n -r 48000 -c 2 -b 32 -e floating-point -t raw "$work/noise.raw" \
    synth $((DURATION + SETTLE + 40)) whitenoise vol 0.5 2>/dev/null
pacat --playback -d vellatone --rate=48000 --channels=2 --format=float32le \
    --latency-msec=100 --client-name=measure-guest-noise <"$work/noise.raw" &
noise_pid=$!

node "$e2e/play-guest.mjs" "$port" $((DURATION + SETTLE + 30)) >"$work/page.out" 2>"$work/page.err" &
page_pid=$!
for _ in $(seq 300); do
    grep -q '^playing' "$work/page.out" 2>/dev/null && break
    kill -0 "$page_pid" 2>/dev/null || { cat "$work/page.out" "$work/page.err" >&2; exit 2; }
    sleep 0.1
done
grep -q '^playing' "$work/page.out" || { echo "measure-guest-sync: the page never played" >&2; cat "$work/page.out" >&2; exit 2; }

# Let the clock exchanges and the output mapping settle, and the sinks' blocks shrink.
sleep "$SETTLE"

limit=()
[[ -n $LIMIT_MS ]] && limit=(--limit-ms "$LIMIT_MS")
status=0
"$BIN/vellatone-syncmeter" --seconds "$DURATION" --windows 12 "${limit[@]}" \
    --expect guest-speaker=0 guest=phone.monitor speaker=living.monitor \
    2>"$work/syncmeter.err" || status=$?
[[ -n ${VERBOSE:-} ]] && cat "$work/syncmeter.err" "$work/page.err" "$work/host.err" >&2
exit "$status"
