# Two hosts on one machine, for tests of what is found on the network: two
# network namespaces joined by a veth pair, each with its own private D-Bus
# system bus and its own avahi-daemon on its veth end. Something advertised in
# one (a receiver, a fake TV) is discovered by the program run in the other, at
# the other's veth address, which is not one of the program's own addresses.
# Traffic never leaves the two namespaces. Needs root, iproute2, dbus-daemon
# and avahi-daemon.
#
# Source it, then:
#   rig_up DIR            makes both hosts, "a" and "b", with their files in DIR;
#                         sets RIG_ADDR_a, RIG_ADDR_b (the veth addresses) and
#                         RIG_BUS_a, RIG_BUS_b (DBUS_SYSTEM_BUS_ADDRESS values)
#   rig_in HOST CMD...    runs CMD inside HOST, with HOST's system bus
#   rig_bg HOST CMD...    the same in the background; rig_down kills it
#   rig_exec HOST CMD...  becomes CMD inside HOST: `(rig_exec a prog) &` makes $!
#                         the program's own pid
#   rig_down              kills everything the rig started and removes both
#                         namespaces (safe to call twice, and from a trap)
#   rig_skip_reason       prints why the rig cannot run here, or nothing
#
# The namespaces are named for this shell's pid, so two tests, or two people's
# tests, run side by side without meeting.

RIG_DIR=""
RIG_PIDS=()
RIG_NS_a=""
RIG_NS_b=""

rig_skip_reason() {
    [ "$(id -u)" = 0 ] || { echo "needs root for network namespaces"; return; }
    local tool
    for tool in ip unshare dbus-daemon avahi-daemon; do
        command -v "$tool" >/dev/null || { echo "$tool is not installed"; return; }
    done
}

# Host "a" gets 10.78.0.1, host "b" 10.78.0.2: each pair of namespaces is a
# network of its own, so the addresses never collide with another rig's.
rig_up() {
    RIG_DIR=$1
    mkdir -p "$RIG_DIR"
    RIG_NS_a="vt$$a"
    RIG_NS_b="vt$$b"
    RIG_ADDR_a=10.78.0.1
    RIG_ADDR_b=10.78.0.2
    ip netns add "$RIG_NS_a" || return 1
    ip netns add "$RIG_NS_b" || return 1
    # Interface names are at most 15 characters; the pid keeps them apart.
    ip link add "v$$a" type veth peer name "v$$b" || return 1
    local host
    for host in a b; do
        local ns="RIG_NS_$host" addr="RIG_ADDR_$host"
        ip link set "v$$$host" netns "${!ns}"
        ip -n "${!ns}" addr add "${!addr}/24" dev "v$$$host"
        ip -n "${!ns}" link set lo up
        ip -n "${!ns}" link set "v$$$host" up multicast on
        rig_start_bus "$host" || return 1
        rig_start_avahi "$host" || return 1
    done
    rig_wait_avahi a && rig_wait_avahi b
}

rig_start_bus() {
    local host=$1 dir="$RIG_DIR/$1"
    mkdir -p "$dir"
    cat >"$dir/system-bus.conf" <<CONF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=$dir/system_bus_socket</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_type="method_call"/>
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
  </policy>
  <includedir>/usr/share/dbus-1/system.d</includedir>
  <includedir>/etc/dbus-1/system.d</includedir>
</busconfig>
CONF
    local pid
    pid=$(dbus-daemon --config-file="$dir/system-bus.conf" --fork --print-pid=1) || return 1
    RIG_PIDS+=("$pid")
    printf -v "RIG_BUS_$host" 'unix:path=%s' "$dir/system_bus_socket"
}

# avahi-daemon always keeps its pid file and socket in /run/avahi-daemon, so
# each one gets a private tmpfs there, in a mount namespace of its own.
rig_start_avahi() {
    local host=$1 dir="$RIG_DIR/$1" ns="RIG_NS_$1" bus="RIG_BUS_$1"
    cat >"$dir/avahi-daemon.conf" <<CONF
[server]
host-name=vellatone-rig-$host
allow-interfaces=v$$$host
use-ipv4=yes
use-ipv6=no
enable-dbus=yes
ratelimit-interval-usec=1000000
ratelimit-burst=1000
[wide-area]
enable-wide-area=no
[publish]
publish-workstation=no
publish-hinfo=no
publish-addresses=yes
[reflector]
[rlimits]
CONF
    mkdir -p /run/avahi-daemon
    ip netns exec "${!ns}" unshare -m --propagation private env DBUS_SYSTEM_BUS_ADDRESS="${!bus}" \
        bash -c 'mount -t tmpfs none /run/avahi-daemon &&
                 exec avahi-daemon -f "$1" --no-drop-root --no-chroot --no-rlimits' \
        avahi "$dir/avahi-daemon.conf" >"$dir/avahi.log" 2>&1 &
    RIG_PIDS+=("$!")
}

# Running means the daemon has registered its name on the host's bus.
rig_wait_avahi() {
    local i
    for i in $(seq 100); do
        if rig_in "$1" dbus-send --system --print-reply --dest=org.freedesktop.Avahi / \
            org.freedesktop.Avahi.Server.GetState >/dev/null 2>&1; then
            return 0
        fi
        sleep 0.1
    done
    echo "avahi-daemon of host $1 did not start:" >&2
    cat "$RIG_DIR/$1/avahi.log" >&2
    return 1
}

rig_in() {
    local host=$1 ns="RIG_NS_$1" bus="RIG_BUS_$1"
    shift
    ip netns exec "${!ns}" env DBUS_SYSTEM_BUS_ADDRESS="${!bus}" "$@"
}

# The subshell becomes the command itself (ip netns exec and env exec too),
# so that $! and the pid kept are the command's own.
rig_bg() {
    (rig_exec "$@") &
    RIG_PIDS+=("$!")
}

rig_exec() {
    local ns="RIG_NS_$1" bus="RIG_BUS_$1"
    shift
    exec ip netns exec "${!ns}" env DBUS_SYSTEM_BUS_ADDRESS="${!bus}" "$@"
}

rig_down() {
    local pid
    for pid in "${RIG_PIDS[@]}"; do kill "$pid" 2>/dev/null; done
    for pid in "${RIG_PIDS[@]}"; do
        for _ in $(seq 40); do kill -0 "$pid" 2>/dev/null || break; sleep 0.05; done
        kill -9 "$pid" 2>/dev/null
    done
    RIG_PIDS=()
    # Deleting a namespace also deletes the veth pair inside it.
    [ -n "$RIG_NS_a" ] && ip netns del "$RIG_NS_a" 2>/dev/null
    [ -n "$RIG_NS_b" ] && ip netns del "$RIG_NS_b" 2>/dev/null
    RIG_NS_a=""
    RIG_NS_b=""
    return 0
}
