#!/usr/bin/env bash
# One Cast sender against the fake TV, with real parts: TLS, the HTTP stream,
# the TV's own buffer and resampler, and its sound in the null sink "tv" of a
# private sound server. Everything runs in a network namespace of its own.
#   tests/cast/fake-tv-test.sh BIN_DIR SCENARIO
# Scenarios: play (one TV through its whole life: silent until locked, rate 2
# refused, a stall survived, another sender taking over), firewall, close,
# silent.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
repo=$(cd "$here/../.." && pwd)
bin=$(realpath "$1")
scenario=$2

if [[ -z ${VT_CAST_NETNS:-} ]]; then
    for cmd in node npm pacat parecord unshare ip openssl; do
        if ! command -v "$cmd" >/dev/null; then
            echo "fake-tv-test: $cmd is not installed (scripts/install-deps.sh installs it)" >&2
            [[ -n ${CI:-} ]] && exit 1
            exit 77
        fi
    done
    if [[ ! -d $here/fake-tv/node_modules/castv2 ]]; then
        (cd "$here/fake-tv" && npm ci --no-audit --no-fund >/dev/null)
    fi
    userns=()
    [[ $(id -u) -eq 0 ]] || userns=(-r)
    VT_CAST_NETNS=1 exec unshare "${userns[@]}" -n "$0" "$@"
fi
ip link set lo up

work=$(mktemp -d /tmp/vellatone-cast.XXXXXX)
tv_pid="" probe_pid=""
cleanup() {
    [[ -n $probe_pid ]] && kill "$probe_pid" 2>/dev/null
    [[ -n $tv_pid ]] && kill "$tv_pid" 2>/dev/null
    exec 3>&- 4>&- 2>/dev/null || true
    wait 2>/dev/null || true
    "$repo/scripts/private-pulse.sh" stop "$work/pulse" >/dev/null 2>&1 || true
    if [[ ${failed:-1} -ne 0 ]]; then
        echo "--- fake TV"; grep -v '"message"' "$work/tv.log" | tail -40
        echo "--- probe"; cat "$work/probe.log"; tail -20 "$work/probe.err"
    fi
    rm -rf "$work"
}
trap cleanup EXIT
unset PULSE_SINK PULSE_SOURCE PULSE_SERVER
eval "$("$repo/scripts/private-pulse.sh" start "$work/pulse" tv:44100:TV)"

fail() { echo "fake-tv-test $scenario: $*" >&2; exit 1; }
# Waits until FILE has a line matching PATTERN; false after SECONDS.
await() {
    local file=$1 pattern=$2 seconds=$3
    for _ in $(seq $((seconds * 10))); do
        grep -q -- "$pattern" "$file" 2>/dev/null && return 0
        sleep 0.1
    done
    return 1
}
# The probe's seconds at the first line matching PATTERN.
seconds_at() { grep -- "$1" "$work/probe.log" | head -1 | sed 's/.*"t":\([0-9.]*\).*/\1/'; }

start_tv() {
    mkfifo "$work/tv.in"
    node "$here/fake-tv/fake-tv.mjs" --port 0 --player "$bin/vellatone-tv-sink" "$@" <"$work/tv.in" >"$work/tv.log" 2>&1 &
    tv_pid=$!
    exec 3>"$work/tv.in"
    await "$work/tv.log" '"listening"' 10 || fail "the fake TV did not start"
    tv_port=$(grep -o '"port":[0-9]*' "$work/tv.log" | head -1 | cut -d: -f2)
}
start_probe() {
    mkfifo "$work/probe.in"
    VELLATONE_CAST_DEBUG=1 "$bin/vellatone-cast-probe" --host 127.0.0.1 --port "$tv_port" --seconds 120 --stdin yes \
        <"$work/probe.in" >"$work/probe.log" 2>"$work/probe.err" &
    probe_pid=$!
    exec 4>"$work/probe.in"
}
stop_probe() {
    echo stop >&4
    wait "$probe_pid" || true
    probe_pid=""
}
tv() { echo "$*" >&3; }
# RMS of 1.5 s of the TV's sink, 0..1.
tv_level() {
    # SIGINT, so that parecord writes out what it holds.
    timeout -s INT 1.5 parecord --raw --device=tv.monitor --format=s16le --rate=44100 --channels=2 \
        --latency-msec=20 "$work/rec.raw" || true
    python3 - "$work/rec.raw" <<'PY'
import math, struct, sys
data = open(sys.argv[1], 'rb').read()
n = len(data) // 2
s = struct.unpack('<%dh' % n, data[:2 * n])
print('%.3f' % (math.sqrt(sum(x * x for x in s) / max(1, n)) / 32768))
PY
}
locks() { await "$work/probe.log" '"streaming"' "${1:-50}" || fail "never streaming"; }

case "$scenario" in
play)
    # A TV that refuses rate 2 and holds 4.5 s: a long catch-up at 1.5.
    start_tv --refuse-rate-2 --buffer 4.5
    start_probe
    await "$work/tv.log" '"state":"PLAYING"' 15 || fail "the TV never played"
    level=$(tv_level)
    python3 -c "import sys; sys.exit(0 if $level < 0.001 else 1)" || fail "the TV was heard before the lock (level $level)"
    await "$work/tv.log" '"rate-refused"' 30 || fail "rate 2 was never asked for"
    await "$work/tv.log" '"rate":1.5' 5 || fail "no catch-up at 1.5 after the refusal"
    locks 50
    await "$work/probe.log" '"latencyMs"' 2 || fail "no latency published at the lock"
    sleep 1
    level=$(tv_level)
    python3 -c "import sys; sys.exit(0 if $level > 0.1 else 1)" || fail "the TV is silent after the lock (level $level)"
    echo "locked after $(seconds_at '"streaming"') s with rate 2 refused; TV level $level; $(grep latencyMs "$work/probe.log" | tail -1)"

    # Its buffer runs dry: the target goes up and it plays again.
    tv stall 4
    await "$work/tv.log" '"underrun"' 10 || fail "the TV's buffer did not run dry"
    await "$work/probe.log" '"latencyMs":1500.0' 5 || fail "the target was not raised"
    sleep 8
    tail -1 "$work/tv.log" | grep -q underrun && fail "the TV did not play again"
    ! grep -q '"failed"' "$work/probe.log" || fail "a short stall failed the sender"
    level=$(tv_level)
    python3 -c "import sys; sys.exit(0 if $level > 0.1 else 1)" || fail "silent after the stall (level $level)"
    echo "recovered from a 4 s stall; TV level $level"

    # Another sender takes the TV: ours lets go without stopping theirs.
    tv takeover
    await "$work/probe.log" '"replaced"' 5 || fail "not replaced"
    sleep 1
    ! grep -q '"event":"stopped"' "$work/tv.log" || fail "the other sender's app was stopped"
    echo "replaced"
    ;;
firewall)
    start_tv --mode firewall
    start_probe
    await "$work/probe.log" '"unreachable"' 14 || fail "not unreachable"
    t=$(seconds_at '"unreachable"')
    python3 -c "import sys; sys.exit(0 if $t <= 13.0 else 1)" || fail "unreachable only after $t s"
    await "$work/tv.log" '"event":"stopped"' 3 || fail "the TV's player was left running"
    echo "unreachable after $t s"
    ;;
close)
    start_tv --mode close
    start_probe
    await "$work/probe.log" 'the TV closed the connection' 10 || fail "the closed connection was not reported"
    echo "closed: $(grep failed "$work/probe.log")"
    ;;
silent)
    start_tv --mode silent
    start_probe
    await "$work/probe.log" 'no answer for 15 s' 26 || fail "a silent TV was not lost"
    echo "lost after $(seconds_at 'no answer') s"
    ;;
*) fail "unknown scenario" ;;
esac
failed=0
