#!/usr/bin/env bash
# Runs a command in network, mount and process namespaces of its own:
# loopback up, a private system bus and an avahi-daemon on loopback, which
# shairport-sync needs to start. Receivers and the tool under test then listen
# and talk only inside, /run/avahi-daemon is a private tmpfs, so other tests'
# daemons are untouched, and whatever the command leaves running, even when
# it is killed by a timeout, ends with the namespace.
#   tests/airplay_tool/with_receiver_namespace.sh COMMAND [ARGS...]
set -euo pipefail
if [ -z "${VT_RECEIVER_NAMESPACE:-}" ]; then
    export VT_RECEIVER_NAMESPACE=1
    exec unshare -n -m -p -f --kill-child --mount-proc --propagation private "$0" "$@"
fi
dir=$(mktemp -d /tmp/vt-receiver-ns-XXXXXX)
cleanup() {
    avahi-daemon -k 2>/dev/null || true
    [ -f "$dir/dbus.pid" ] && kill "$(cat "$dir/dbus.pid")" 2>/dev/null || true
    rm -rf "$dir"
}
trap cleanup EXIT
ip link set lo up
mkdir -p /run/avahi-daemon
mount -t tmpfs none /run/avahi-daemon
cat > "$dir/bus.conf" <<CONF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=$dir/system_bus</listen>
  <policy context="default">
    <allow user="*"/><allow own="*"/><allow send_type="method_call"/>
    <allow send_destination="*"/><allow receive_sender="*"/>
  </policy>
  <includedir>/usr/share/dbus-1/system.d</includedir>
  <includedir>/etc/dbus-1/system.d</includedir>
</busconfig>
CONF
cat > "$dir/avahi.conf" <<CONF
[server]
allow-interfaces=lo
use-ipv6=no
[wide-area]
enable-wide-area=no
[publish]
publish-workstation=no
CONF
dbus-daemon --config-file="$dir/bus.conf" --fork --print-pid=1 > "$dir/dbus.pid"
export DBUS_SYSTEM_BUS_ADDRESS="unix:path=$dir/system_bus"
avahi-daemon -f "$dir/avahi.conf" --no-drop-root --no-chroot --no-rlimits -D
for _ in $(seq 50); do avahi-daemon -c && break; sleep 0.1; done
status=0
"$@" || status=$?
exit $status
