#!/usr/bin/env bash
# A private session bus, with or without a Secret Service on it, for tests of
# where passwords are kept. GNOME Keyring runs headless once its login keyring
# is made and unlocked with a password on standard input.
#
#   tests/support/private-keyring.sh start DIR [--no-keyring]
#       starts the bus (and the keyring) and prints "export NAME=value" lines
#   tests/support/private-keyring.sh stop DIR
set -euo pipefail
[ $# -ge 2 ] || { echo "usage: $0 start|stop DIR [--no-keyring]" >&2; exit 2; }
cmd=$1
dir=$(realpath -m "$2")

case "$cmd" in
start)
    mkdir -p "$dir/home" "$dir/runtime"
    chmod 700 "$dir/runtime"
    export HOME=$dir/home XDG_RUNTIME_DIR=$dir/runtime XDG_DATA_HOME=$dir/home/.local/share
    # No activation of services: a test says itself what runs on its bus.
    cat >"$dir/session.conf" <<CONF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path=$dir/runtime/bus</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
CONF
    dbus-daemon --config-file="$dir/session.conf" --fork --print-pid=1 >"$dir/bus.pid"
    export DBUS_SESSION_BUS_ADDRESS=unix:path=$dir/runtime/bus
    if [ "${3:-}" != --no-keyring ]; then
        command -v gnome-keyring-daemon >/dev/null || { echo "no gnome-keyring-daemon" >&2; exit 77; }
        # --login makes the login keyring with this password and unlocks it;
        # the daemon stays, and says its pid in its output.
        echo -n "vellatone-test" | gnome-keyring-daemon --login >"$dir/keyring.env" 2>"$dir/keyring.log"
        gnome-keyring-daemon --start --components=secrets >>"$dir/keyring.env" 2>>"$dir/keyring.log"
        for _ in $(seq 50); do
            dbus-send --session --print-reply --dest=org.freedesktop.DBus / \
                org.freedesktop.DBus.NameHasOwner string:org.freedesktop.secrets 2>/dev/null |
                grep -q 'boolean true' && break
            sleep 0.1
        done
    fi
    echo "export HOME=$HOME XDG_RUNTIME_DIR=$XDG_RUNTIME_DIR XDG_DATA_HOME=$XDG_DATA_HOME"
    echo "export DBUS_SESSION_BUS_ADDRESS=$DBUS_SESSION_BUS_ADDRESS"
    ;;
stop)
    # The keyring daemon is known by the bus name it owns, never by its
    # program's name; it would also leave once its bus is gone.
    pid=$(DBUS_SESSION_BUS_ADDRESS=unix:path=$dir/runtime/bus dbus-send --session --print-reply \
        --dest=org.freedesktop.DBus / org.freedesktop.DBus.GetConnectionUnixProcessID \
        string:org.freedesktop.secrets 2>/dev/null | sed -n 's/.*uint32 //p') || true
    [ -n "$pid" ] && kill "$pid" 2>/dev/null || true
    [ -f "$dir/bus.pid" ] && kill "$(cat "$dir/bus.pid")" 2>/dev/null || true
    ;;
*) exit 2 ;;
esac
