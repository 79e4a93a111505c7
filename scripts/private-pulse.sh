#!/usr/bin/env bash
# A private PulseAudio for tests, in a directory of its own.
#
#   scripts/private-pulse.sh start DIR [name:rate:Description ...]
#       starts the daemon (48 kHz default rate, anonymous unix socket) with one
#       null sink per argument, waits until it answers, and prints the
#       environment a client needs, as "export NAME=value" lines.
#   scripts/private-pulse.sh env DIR     prints that environment again
#   scripts/private-pulse.sh stop DIR    stops the daemon
set -euo pipefail

usage() { echo "usage: $0 start|env|stop DIR [name:rate:Description ...]" >&2; exit 2; }
[ $# -ge 2 ] || usage
cmd=$1
dir=$(realpath -m "$2")
shift 2

runtime="$dir/runtime"
socket="$runtime/pulse/native"

print_env() {
    echo "export XDG_RUNTIME_DIR=$runtime"
    echo "export PULSE_SERVER=unix:$socket"
}

in_env() {
    env -u PULSE_SERVER XDG_RUNTIME_DIR="$runtime" HOME="$dir/home" PULSE_CONFIG="$dir/daemon.conf" \
        PULSE_SERVER="unix:$socket" "$@"
}

case "$cmd" in
start)
    mkdir -p "$runtime" "$dir/home"
    chmod 700 "$dir" "$runtime" "$dir/home"
    cat > "$dir/daemon.conf" <<CONF
default-sample-rate = 48000
default-sample-format = float32le
exit-idle-time = -1
CONF
    # No default script: nothing but the socket and the sinks we ask for.
    in_env pulseaudio -n --daemonize=yes --system=false --exit-idle-time=-1 --disallow-exit \
        --log-target="file:$dir/pa.log" \
        -L "module-native-protocol-unix auth-anonymous=1 socket=$socket" 2>>"$dir/start.log"
    for _ in $(seq 100); do
        in_env pactl info >/dev/null 2>&1 && break
        sleep 0.05
    done
    in_env pactl info >/dev/null 2>&1 || { echo "private PulseAudio did not start; see $dir/pa.log" >&2; exit 1; }
    for sink in "$@"; do
        IFS=: read -r name rate description <<<"$sink"
        [ -n "$name" ] && [ -n "$rate" ] || { echo "bad sink argument (want name:rate:Description): $sink" >&2; exit 2; }
        description=${description:-$name}
        in_env pactl load-module module-null-sink sink_name="$name" rate="$rate" channels=2 \
            "sink_properties=\"device.description='$description'\"" >/dev/null
    done
    print_env
    ;;
env)
    print_env
    ;;
stop)
    pidfile="$runtime/pulse/pid"
    if [ -f "$pidfile" ]; then
        pid=$(cat "$pidfile")
        if kill "$pid" 2>/dev/null; then
            for _ in $(seq 100); do kill -0 "$pid" 2>/dev/null || break; sleep 0.05; done
            kill -9 "$pid" 2>/dev/null || true
        fi
        rm -f "$pidfile"
    fi
    ;;
*)
    usage
    ;;
esac
