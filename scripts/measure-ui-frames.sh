#!/usr/bin/env bash
# Measures how smoothly the window draws while eight outputs play: a private
# PulseAudio with eight null sinks and the capture, the real application
# under Xvfb (Qt Quick on OpenGL through GLX, which Mesa's llvmpipe renders
# in software), eight outputs added and started with vellatonectl, noise
# played into the capture sink, and the visualiser showing the chosen style.
# The window's frame timer (VELLATONE_FRAME_LOG) logs every frame; over the
# recorded seconds this prints the 99th percentile of the frame time (start
# of the scene's synchronisation to the buffer swap) and of the interval
# between frames.
#
#   scripts/measure-ui-frames.sh [Spectrum|Scope]   # style (default Spectrum)
#   DURATION=30                  seconds recorded (default 30)
#   LIMIT_MS=16                  exit 1 when the frame time's p99 is above this
#   BIN=build/bin                where the binaries are
#   KEEP_WORK=1                  keep the work folder (logs, frame log)
#   SCREENSHOT=file.png          save the screen half way through
#   NICE=-15                     priority of the measured processes
#   BACKEND=software             Qt Quick's software renderer (QT_QUICK_BACKEND),
#                                which repaints only what changed; the default
#                                is opengl (Mesa llvmpipe through GLX)
#
# A desktop's display server and sound server run at raised priority; on a
# shared test machine the measured processes (X server, sound server, the
# application, the noise) get a raised priority too when allowed, so that
# what is measured is the window and not the neighbours' compilers.
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
STYLE=${1:-Spectrum}
DURATION=${DURATION:-30}
SETTLE=${SETTLE:-5}
BIN=${BIN:-$here/build/bin}
LIMIT_MS=${LIMIT_MS:-}
NICE=${NICE:--15}
OUTPUTS=8
# A plain command prefix, not a function, so that $! is the process itself.
raised=()
nice -n "$NICE" true 2>/dev/null && raised=(nice -n "$NICE")

case $STYLE in
    Spectrum | Scope) ;;
    *) echo "measure-ui-frames: the style is Spectrum or Scope" >&2; exit 2 ;;
esac
for tool in vellatone vellatonectl; do
    [[ -x $BIN/$tool ]] || { echo "measure-ui-frames: $BIN/$tool is missing; build it first" >&2; exit 2; }
done
for cmd in pulseaudio pactl pacat sox Xvfb python3; do
    command -v "$cmd" >/dev/null || { echo "measure-ui-frames: $cmd is not installed" >&2; exit 2; }
done

work=$(mktemp -d /tmp/vellatone-ui-frames.XXXXXX)
app_pid= noise_pid= xvfb_pid= pulse_started=
cleanup() {
    [[ -n $noise_pid ]] && kill "$noise_pid" 2>/dev/null || true
    if [[ -n $app_pid ]]; then
        kill -TERM "$app_pid" 2>/dev/null || true
        wait "$app_pid" 2>/dev/null || true
    fi
    if [[ -n $xvfb_pid ]]; then
        kill "$xvfb_pid" 2>/dev/null || true
        wait "$xvfb_pid" 2>/dev/null || true
    fi
    [[ -n $pulse_started ]] && "$here/scripts/private-pulse.sh" stop "$work/pulse" >/dev/null 2>&1 || true
    if [[ -z ${KEEP_WORK:-} ]]; then rm -rf "$work"; else echo "measure-ui-frames: kept $work" >&2; fi
}
trap cleanup EXIT
fail() {
    echo "measure-ui-frames: $*" >&2
    for f in "$work"/*.err; do [[ -s $f ]] && { echo "--- $f" >&2; tail -20 "$f" >&2; }; done
    exit 2
}
monotonic() { python3 -c 'import time; print(f"{time.monotonic():.6f}")'; }

unset PULSE_SINK PULSE_SOURCE PULSE_SERVER
sinks=()
for n in $(seq "$OUTPUTS"); do sinks+=("out$n:48000:Output_$n"); done
pulse_started=1
eval "$("$here/scripts/private-pulse.sh" start "$work/pulse" "${sinks[@]}")"
[[ -n ${PULSE_SERVER:-} ]] || fail "no private PulseAudio"
pa_pid=$(cat "$work/pulse/runtime/pulse/pid")
renice -n "$NICE" -p $(ls "/proc/$pa_pid/task") >/dev/null 2>&1 || true

# Xvfb picks a free display and writes its number.
"${raised[@]}" Xvfb -displayfd 3 -screen 0 1280x800x24 -nolisten tcp 3>"$work/display" 2>"$work/xvfb.err" &
xvfb_pid=$!
for _ in $(seq 100); do
    [[ -s $work/display ]] && break
    sleep 0.1
done
[[ -s $work/display ]] || fail "Xvfb did not start"
export DISPLAY=:$(head -n1 "$work/display")

export VELLATONE_CONFIG_DIR=$work/config VELLATONE_CONTROL_SOCKET=$work/control/control.sock
export VELLATONE_FRAME_LOG=$work/frames.log HOME=$work/home
# Playing starts the guest server: keep it on loopback, on any free port.
export VELLATONE_GUEST_BIND=127.0.0.1 VELLATONE_GUEST_PORT=0
export QT_QPA_PLATFORM=xcb QSG_INFO=1
case ${BACKEND:-opengl} in
    opengl) unset QT_QUICK_BACKEND ;;
    software) export QT_QUICK_BACKEND=software ;;
    *) fail "BACKEND is opengl or software" ;;
esac
mkdir -p "$HOME" "$VELLATONE_CONFIG_DIR"
# The window opens with the style to measure and without a tray to wait for.
printf '{"visualiserStyle": "%s", "visualiserHidden": false, "showInMenuBar": false}\n' \
    "$STYLE" >"$VELLATONE_CONFIG_DIR/settings.json"

ctl() { "$BIN/vellatonectl" "$@"; }
"${raised[@]}" "$BIN/vellatone" >"$work/app.out" 2>"$work/app.err" &
app_pid=$!
for _ in $(seq 200); do
    ctl status >/dev/null 2>&1 && break
    kill -0 "$app_pid" 2>/dev/null || fail "the app exited at launch"
    sleep 0.1
done
ctl status >/dev/null 2>&1 || fail "the app's control socket never answered"
for n in $(seq "$OUTPUTS"); do
    ctl add "uid:out$n" >/dev/null || fail "the app did not add out$n"
done
ctl start >/dev/null || fail "the app did not start"

sox -n -r 48000 -c 2 -b 32 -e floating-point -t raw "$work/noise.raw" \
    synth $((DURATION + SETTLE + 20)) pinknoise vol 0.5 2>/dev/null
"${raised[@]}" pacat --playback -d vellatone --rate=48000 --channels=2 --format=float32le \
    --latency-msec=100 --client-name=measure-ui-noise <"$work/noise.raw" &
noise_pid=$!

# Every output must be playing: one playback stream per sink.
playing=0
for _ in $(seq 150); do
    playing=0
    for n in $(seq "$OUTPUTS"); do
        id=$(pactl list short sinks | awk -v s="out$n" '$2 == s {print $1}')
        pactl list short sink-inputs | awk '{print $2}' | grep -qx "$id" && playing=$((playing + 1))
    done
    [[ $playing -eq $OUTPUTS ]] && break
    sleep 0.2
done
[[ $playing -eq $OUTPUTS ]] || fail "only $playing of $OUTPUTS outputs play"

sleep "$SETTLE"
[[ -s $VELLATONE_FRAME_LOG ]] || fail "no frame log: is the frame timer attached?"
from=$(monotonic)
if [[ -n ${SCREENSHOT:-} ]]; then
    sleep $((DURATION / 2))
    import -display "$DISPLAY" -window root "$SCREENSHOT" 2>/dev/null || echo "measure-ui-frames: no screenshot" >&2
    sleep $((DURATION - DURATION / 2))
else
    sleep "$DURATION"
fi
to=$(monotonic)
kill -0 "$app_pid" 2>/dev/null || fail "the app ended while measuring"
sleep 2  # the log is flushed about once a second

renderer=$(sed -n 's/.*RENDERER: \(.*\) VERSION:.*/\1/p' "$work/app.err" | head -n1)
loop=$(sed -n 's/^qt.scenegraph.general: \(.*\) render loop$/\1/p' "$work/app.err" | head -n1)
if [[ ${BACKEND:-opengl} == software ]]; then
    echo "renderer: Qt Quick software renderer"
elif [[ -n $renderer ]]; then
    echo "renderer: OpenGL on ${renderer}${loop:+, $loop render loop}"
fi

# Nearest-rank percentile of one column over the recorded seconds.
p99() {
    awk -v from="$from" -v to="$to" -v col="$1" '$1 >= from && $1 < to && $col >= 0 {print $col}' \
        "$VELLATONE_FRAME_LOG" | sort -g |
        awk '{v[NR] = $1} END {
            if (NR == 0) { print "none 0"; exit }
            r = int(0.99 * NR); if (r < 0.99 * NR) r++
            printf "%.2f %d\n", v[r], NR }'
}
read -r frame_p99 frames < <(p99 2)
read -r interval_p99 intervals < <(p99 3)
[[ $frames -gt 0 ]] || fail "no frames were drawn while measuring"
what="($DURATION s, $OUTPUTS outputs playing, $STYLE)"
echo "frame time p99: $frame_p99 ms over $frames frames $what"
echo "frame interval p99: $interval_p99 ms over $intervals frames $what"
if [[ -n $LIMIT_MS ]] && awk -v p="$frame_p99" -v l="$LIMIT_MS" 'BEGIN {exit !(p > l)}'; then
    exit 1
fi
