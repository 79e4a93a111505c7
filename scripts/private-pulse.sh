#!/usr/bin/env bash
# A private sound server that speaks the PulseAudio protocol, for tests, in a
# directory of its own. VELLATONE_TEST_SERVER picks which one:
#   pulseaudio (default)  PulseAudio, with stream and device restore as desktops load them
#   pipewire              PipeWire + WirePlumber + pipewire-pulse on a private session bus
#
#   scripts/private-pulse.sh start DIR [name:rate:Description ...]
#       starts the server (48 kHz default rate) with one null sink per
#       argument, waits until it answers, and prints the environment a client
#       needs, as "export NAME=value" lines. Starting again in the same DIR
#       after `kill` brings the same server back with what it had stored.
#   scripts/private-pulse.sh env DIR     prints that environment again
#   scripts/private-pulse.sh kill DIR    kills the server at once (SIGKILL), as a crash would
#   scripts/private-pulse.sh stop DIR    stops the server and everything it started
#   scripts/private-pulse.sh which DIR   prints the server DIR runs: pulseaudio or pipewire
set -euo pipefail

usage() { echo "usage: $0 start|env|kill|stop|which DIR [name:rate:Description ...]" >&2; exit 2; }
[ $# -ge 2 ] || usage
cmd=$1
dir=$(realpath -m "$2")
shift 2

runtime="$dir/runtime"
socket="$runtime/pulse/native"
pids="$dir/pids"

server=${VELLATONE_TEST_SERVER:-pulseaudio}
# A directory keeps the server it was first started with, whatever the
# environment of later calls says.
[ -f "$dir/server" ] && server=$(cat "$dir/server")
case "$server" in
pulseaudio | pipewire) ;;
*) echo "VELLATONE_TEST_SERVER must be pulseaudio or pipewire, not '$server'" >&2; exit 2 ;;
esac

print_env() {
    echo "export XDG_RUNTIME_DIR=$runtime"
    echo "export PULSE_SERVER=unix:$socket"
}

in_env() {
    env -u PULSE_SERVER -u DBUS_SESSION_BUS_ADDRESS -u PIPEWIRE_REMOTE \
        XDG_RUNTIME_DIR="$runtime" HOME="$dir/home" XDG_CONFIG_HOME="$dir/home/.config" \
        XDG_STATE_HOME="$dir/home/.local/state" PULSE_CONFIG="$dir/daemon.conf" \
        PULSE_SERVER="unix:$socket" "$@"
}

wait_for_answer() {
    for _ in $(seq 200); do
        in_env pactl info >/dev/null 2>&1 && return 0
        sleep 0.05
    done
    return 1
}

start_pulseaudio() {
    cat > "$dir/daemon.conf" <<CONF
default-sample-rate = 48000
default-sample-format = float32le
exit-idle-time = -1
CONF
    # No default script: the socket, the sinks we ask for, and the two restore
    # modules every desktop's PulseAudio loads, so that what they store about
    # streams and sinks is what tests see.
    cat > "$dir/default.pa" <<PA
load-module module-device-restore
load-module module-stream-restore
load-module module-native-protocol-unix auth-anonymous=1 socket=$socket
PA
    in_env pulseaudio -n --daemonize=yes --system=false --exit-idle-time=-1 --disallow-exit \
        --log-target="file:$dir/pa.log" -F "$dir/default.pa" 2>>"$dir/start.log"
    cp "$runtime/pulse/pid" "$pids/pulseaudio" 2>/dev/null || true
}

start_pipewire() {
    local conf="$dir/home/.config"
    # No hardware monitors: a test machine has no sound card, and the tests'
    # speakers are null sinks.
    mkdir -p "$conf/wireplumber/main.lua.d" "$conf/wireplumber/bluetooth.lua.d"
    printf 'alsa_monitor.enabled = false\nv4l2_monitor.enabled = false\nlibcamera_monitor.enabled = false\n' \
        > "$conf/wireplumber/main.lua.d/51-headless.lua"
    echo 'bluez_monitor.enabled = false' > "$conf/wireplumber/bluetooth.lua.d/51-headless.lua"
    # The session bus WirePlumber wants; one per directory, kept across restarts.
    if [ ! -f "$pids/dbus" ] || ! kill -0 "$(cat "$pids/dbus")" 2>/dev/null; then
        in_env dbus-daemon --session --fork --print-address=1 --print-pid=3 \
            > "$dir/bus" 3> "$pids/dbus"
    fi
    local bus
    bus=$(head -n1 "$dir/bus")
    local p
    for p in pipewire wireplumber pipewire-pulse; do
        # Not through in_env: $! must be the daemon itself, for kill and stop.
        env -u PULSE_SERVER -u PIPEWIRE_REMOTE XDG_RUNTIME_DIR="$runtime" HOME="$dir/home" \
            XDG_CONFIG_HOME="$dir/home/.config" XDG_STATE_HOME="$dir/home/.local/state" \
            DBUS_SESSION_BUS_ADDRESS="$bus" "$p" >> "$dir/$p.log" 2>&1 < /dev/null &
        echo $! > "$pids/$p"
        # WirePlumber and pipewire-pulse give up at once when PipeWire does
        # not answer yet (WirePlumber exits; nothing then links a stream).
        # After a kill its old socket is still there, so ask PipeWire itself.
        if [ "$p" = pipewire ]; then
            for _ in $(seq 200); do in_env pw-cli info 0 >/dev/null 2>&1 && break; sleep 0.05; done
        fi
    done
}

# pipewire-pulse answers before WirePlumber has made the "default" metadata
# and chosen a default sink; until it has, a default cannot be set and new
# streams are not linked to anything. With sinks: until one is the default.
wait_for_session_manager() {
    [ "$server" = pipewire ] || return 0
    local default
    for _ in $(seq 200); do
        if [ $# -eq 0 ]; then
            [[ $(in_env pw-cli ls Metadata 2>/dev/null) == *'metadata.name = "default"'* ]] && return 0
        else
            default=$(in_env pactl get-default-sink 2>/dev/null) || default=
            [ -n "$default" ] && [ "$default" != "@DEFAULT_SINK@" ] && return 0
        fi
        sleep 0.05
    done
    return 1
}

load_sinks() {
    for sink in "$@"; do
        IFS=: read -r name rate description <<<"$sink"
        [ -n "$name" ] && [ -n "$rate" ] || { echo "bad sink argument (want name:rate:Description): $sink" >&2; exit 2; }
        description=${description:-$name}
        in_env pactl load-module module-null-sink sink_name="$name" rate="$rate" channels=2 \
            "sink_properties=\"device.description='$description'\"" >/dev/null
    done
}

# A killed daemon whose parent has gone may stay a zombie for a while; it
# holds nothing any more.
alive() {
    local state
    state=$(sed -n 's/^[0-9]* (.*) \([A-Z]\).*/\1/p' "/proc/$1/stat" 2>/dev/null) || return 1
    [ -n "$state" ] && [ "$state" != Z ]
}

kill_server() {
    local signal=$1 p pid
    for p in pipewire-pulse wireplumber pipewire pulseaudio; do
        [ -f "$pids/$p" ] || continue
        pid=$(cat "$pids/$p")
        if kill "-$signal" "$pid" 2>/dev/null; then
            for _ in $(seq 100); do alive "$pid" || break; sleep 0.05; done
            kill -9 "$pid" 2>/dev/null || true
        fi
        rm -f "$pids/$p"
    done
    # A killed server leaves its sockets behind; the next start makes new ones.
    rm -f "$runtime/pulse/pid"
}

case "$cmd" in
start)
    mkdir -p "$runtime" "$dir/home" "$pids"
    chmod 700 "$dir" "$runtime" "$dir/home"
    echo "$server" > "$dir/server"
    "start_$server"
    wait_for_answer || { echo "private $server did not start; see the logs in $dir" >&2; exit 1; }
    load_sinks "$@"
    wait_for_session_manager "$@" ||
        { echo "WirePlumber did not take charge; see the logs in $dir" >&2; exit 1; }
    print_env
    ;;
env)
    print_env
    ;;
which)
    echo "$server"
    ;;
kill)
    kill_server KILL
    ;;
stop)
    kill_server TERM
    if [ -f "$pids/dbus" ]; then
        kill "$(cat "$pids/dbus")" 2>/dev/null || true
        rm -f "$pids/dbus"
    fi
    ;;
*)
    usage
    ;;
esac
