#!/usr/bin/env bash
# The shared PTP clock (vellatone-airplay --ptp-daemon) against Debian's
# linuxptp, on two hosts made of network namespaces joined by a veth pair.
#  1. Our daemon leads on host a; ptp4l on host b follows it as a slave with
#     software time stamps over UDP/IPv4. pmc must show ptp4l's parent and
#     grandmaster to be our clock identity, with a path delay measured and an
#     offset under 100 us (both hosts read one system clock, so anything more
#     is our time stamps or our messages at fault). The daemon's shared socket
#     must know ptp4l as heard from once a receiver is registered. Then the
#     same with ptp4l measuring the link peer to peer (Pdelay).
#  2. A session whose receiver will not follow us (CLIAIRPLAY_PTP_FOLLOW=1)
#     turns our daemon into a follower of that receiver, here ptp4l as
#     master: the session becomes ready, and the daemon's shared socket
#     reports ptp4l's clock within 100 us.
#     A session's clock (as the AirPlay 2 route runs it) joins the daemon
#     with ptp4l as its receiver and reports it ready; with the daemon gone
#     it runs a clock of its own, which ptp4l also answers.
#  3. Without the privilege to bind 319/320 the daemon says so and ends with
#     2, and a session keeps time by NTP and says so.
# ptp4l runs with free_running 1: it measures but never steers the system
# clock, which it would share with everything else on this machine.
#
#   ptp_linuxptp_test.sh BIN_DIR SESSION_PROBE
set -uo pipefail

TOOL=$(realpath "$1")/vellatone-airplay
PROBE=$(realpath "$2")
[[ $(id -u) = 0 ]] || { echo "skipped: needs root for network namespaces"; exit 77; }
for need in ip ptp4l pmc python3 setpriv; do
    command -v "$need" >/dev/null || { echo "skipped: $need is not installed"; exit 77; }
done
[[ -x $TOOL && -x $PROBE ]] || { echo "skipped: the tool or the probe is not built"; exit 77; }

# Clocks differ by less than this, or the test fails.
max_offset_ns=100000
device_id=AA:BB:CC:DD:EE:FF
our_clock=aabbcc.fffe.ddeeff  # the EUI-64 of that device id, as linuxptp writes it
work=$(mktemp -d /tmp/vt-ptp.XXXXXX)
chmod 700 "$work"
export XDG_RUNTIME_DIR=$work
ns_a="vtp$$a" ns_b="vtp$$b" addr_a=10.79.0.1 addr_b=10.79.0.2
pids=()
started=$(date +%s.%N)

finish() {
    local pid
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null; done
    for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null; done
    ip netns del "$ns_a" 2>/dev/null
    ip netns del "$ns_b" 2>/dev/null
    rm -rf "$work"
}
trap finish EXIT
fail() {
    echo "FAIL: $*"
    for log in "$work"/*.log; do echo "--- $log"; grep -v 'config item' "$log" | tail -25; done
    exit 1
}

ip netns add "$ns_a" && ip netns add "$ns_b" || fail "cannot make network namespaces"
ip link add "p$$a" type veth peer name "p$$b" || fail "cannot make a veth pair"
ip link set "p$$a" netns "$ns_a"
ip link set "p$$b" netns "$ns_b"
ip -n "$ns_a" addr add "$addr_a/24" dev "p$$a"
ip -n "$ns_b" addr add "$addr_b/24" dev "p$$b"
for ns in "$ns_a" "$ns_b"; do ip -n "$ns" link set lo up; done
ip -n "$ns_a" link set "p$$a" up multicast on
ip -n "$ns_b" link set "p$$b" up multicast on

ptp4l_config() {  # role-specific lines follow the common ones
    cat <<CONF
[global]
free_running 1
transportSpecific 1
network_transport UDPv4
time_stamping software
uds_address $work/ptp4l.uds
summary_interval 0
CONF
    cat
}
pmc_get() {  # what ptp4l says of one data set
    ip netns exec "$ns_b" pmc -u -b 0 -t 1 -s "$work/ptp4l.uds" -i "$work/pmc.uds" "GET $1" 2>/dev/null
}
ask_daemon() {  # one line to the daemon's shared socket; its answer
    # From the daemon's namespace: the answer goes to an abstract address,
    # and those belong to one network namespace.
    ip netns exec "$ns_a" python3 - "$XDG_RUNTIME_DIR/vellatone-ptp.sock" "$1" <<'PY'
import socket, sys
s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
s.bind("")  # an abstract address of our own for the answer
s.settimeout(1.0)
s.sendto(sys.argv[2].encode(), sys.argv[1])
try:
    print(s.recv(512).decode())
except socket.timeout:
    pass
PY
}
field() { sed -n "s/.*\b$1[= ]\+\(-\?[0-9a-f.x]*\).*/\1/p" | head -1; }
abs() { local v=${1%%.*}; echo "${v#-}"; }
wait_for() {  # seconds, then a command that must succeed
    local deadline=$(($(date +%s) + $1)); shift
    until "$@"; do
        (($(date +%s) < deadline)) || return 1
        sleep 0.2
    done
}

# 1. We lead; ptp4l follows.
ip netns exec "$ns_a" "$TOOL" --ptp-daemon --if "$addr_a" --dacp "$device_id" >"$work/daemon.log" 2>&1 &
pids+=($!)
ptp4l_config <<<"slaveOnly 1" >"$work/slave.conf"
ip netns exec "$ns_b" ptp4l -f "$work/slave.conf" -i "p$$b" -m >"$work/ptp4l-slave.log" 2>&1 &
pids+=($!)
slave_pid=$!
wait_for 5 grep -q "state=ready" "$work/daemon.log" || fail "the daemon did not start"
ask_daemon "R $addr_b" | grep -q "clock_id=aabbccfffeddeeff" || fail "the shared socket did not answer"

locked() {
    pmc_get PARENT_DATA_SET | grep -q "grandmasterIdentity *$our_clock" || return 1
    local current
    current=$(pmc_get CURRENT_DATA_SET)
    delay=$(field meanPathDelay <<<"$current")
    offset=$(field offsetFromMaster <<<"$current")
    # ptp4l shows 0 until its first measurement (free running, every 2 s).
    [[ -n $delay && $(abs "$delay") != 0 && -n $offset && $(abs "$offset") != 0 ]]
}
wait_for 12 locked || fail "ptp4l did not lock to our clock $our_clock"
pmc_get PARENT_DATA_SET | grep -q "parentPortIdentity *$our_clock-1" || fail "ptp4l's parent is not our port"
for sample in 1 2 3; do
    current=$(pmc_get CURRENT_DATA_SET)
    offset=$(field offsetFromMaster <<<"$current")
    delay=$(field meanPathDelay <<<"$current")
    echo "ptp4l following us: offsetFromMaster ${offset} ns, meanPathDelay ${delay} ns"
    (($(abs "$offset") < max_offset_ns)) || fail "offset ${offset} ns is over ${max_offset_ns} ns"
    sleep 0.5
done
ask_daemon "? $addr_b" | grep -q "peers=1 heard=1" || fail "the daemon did not hear ptp4l: $(ask_daemon "? $addr_b")"

# A session joins the daemon with ptp4l as its receiver.
ip netns exec "$ns_a" "$PROBE" --shared "$addr_b" "$addr_a" >"$work/session-shared.log" 2>&1 ||
    fail "a session on the daemon's clock never became ready"
grep -q "source=shared clock_number=-6144091866752225537" "$work/session-shared.log" ||
    fail "the session did not join the daemon"
grep -q "clock_ready mode=ptp state=ready" "$work/session-shared.log" || fail "no ready line"

# 1b. The same with the link measured peer to peer (Pdelay_Req, answered
# two-step), as 802.1AS receivers measure it.
kill "$slave_pid"
wait "$slave_pid" 2>/dev/null
ptp4l_config <<<"slaveOnly 1
delay_mechanism P2P" >"$work/p2p.conf"
ip netns exec "$ns_b" ptp4l -f "$work/p2p.conf" -i "p$$b" -m >"$work/ptp4l-p2p.log" 2>&1 &
pids+=($!)
measured_peer() {
    delay=$(pmc_get PORT_DATA_SET | field peerMeanPathDelay)
    offset=$(pmc_get CURRENT_DATA_SET | field offsetFromMaster)
    pmc_get PARENT_DATA_SET | grep -q "grandmasterIdentity *$our_clock" &&
        [[ -n $delay && $(abs "$delay") != 0 && -n $offset && $(abs "$offset") != 0 ]]
}
wait_for 12 measured_peer || fail "ptp4l measured no peer delay to our clock"
echo "ptp4l following us peer to peer: offsetFromMaster ${offset} ns, peerMeanPathDelay ${delay} ns"
(($(abs "$offset") < max_offset_ns)) || fail "offset ${offset} ns is over ${max_offset_ns} ns"

# Without the daemon a session runs a clock of its own, and ptp4l answers it too.
kill "${pids[0]}"
wait "${pids[0]}" 2>/dev/null
ip netns exec "$ns_a" "$PROBE" "$addr_b" "$addr_a" >"$work/session-own.log" 2>&1 ||
    fail "a session with a clock of its own never became ready"
grep -q "source=own" "$work/session-own.log" || fail "the session did not run its own clock"
grep "clock_ready" "$work/session-own.log" | tail -1

# 2. ptp4l leads; we follow.
kill "${pids[@]}" 2>/dev/null
wait "${pids[@]}" 2>/dev/null
pids=()
ptp4l_config <<<"priority1 1
logSyncInterval -3
logAnnounceInterval -2
announceReceiptTimeout 2" >"$work/master.conf"
ip netns exec "$ns_b" ptp4l -f "$work/master.conf" -i "p$$b" -m >"$work/ptp4l-master.log" 2>&1 &
pids+=($!)
ip netns exec "$ns_a" "$TOOL" --ptp-daemon --if "$addr_a" --dacp "$device_id" >"$work/follower.log" 2>&1 &
pids+=($!)
wait_for 5 grep -q "state=ready" "$work/follower.log" || fail "the daemon did not start again"
# A session whose receiver will not follow us turns the leading daemon into its follower.
ip netns exec "$ns_a" "$PROBE" --shared --follow "$addr_b" "$addr_a" >"$work/session-follow.log" 2>&1 ||
    fail "a session following ptp4l never became ready: $(cat "$work/session-follow.log")"
master_clock=
following() {
    local line
    line=$(ask_daemon "?")
    [[ $line == *"mode=follow"*"state=ready"* ]] || return 1
    master_clock=$(sed -n 's/.*clock_id=\([0-9a-f]*\).*/\1/p' <<<"$line")
    offset=$(field offset_ns <<<"$line")
}
wait_for 15 following || fail "our daemon did not follow ptp4l: $(ask_daemon "?")"
ptp4l_clock=$(pmc_get DEFAULT_DATA_SET | sed -n 's/.*clockIdentity *\([0-9a-f.]*\).*/\1/p' | tr -d .)
[[ $master_clock == "$ptp4l_clock" ]] || fail "followed $master_clock, but ptp4l is $ptp4l_clock"
echo "following ptp4l: offset ${offset} ns"
(($(abs "$offset") < max_offset_ns)) || fail "offset ${offset} ns is over ${max_offset_ns} ns"

# 3. No privilege: plain words and status 2.
kill "${pids[@]}" 2>/dev/null
wait "${pids[@]}" 2>/dev/null
pids=()
ip netns exec "$ns_a" setpriv --reuid=65534 --regid=65534 --clear-groups \
    "$TOOL" --ptp-daemon --if "$addr_a" >"$work/unprivileged.log" 2>&1
status=$?
[[ $status = 2 ]] || fail "an unprivileged daemon ended with $status, not 2"
grep -q "code=ptp_no_privilege .*needs root or CAP_NET_BIND_SERVICE" "$work/unprivileged.log" ||
    fail "an unprivileged daemon did not say why: $(cat "$work/unprivileged.log")"
ip netns exec "$ns_a" setpriv --reuid=65534 --regid=65534 --clear-groups \
    "$PROBE" "$addr_b" "$addr_a" >"$work/session-none.log" 2>&1
grep -q "mode=none .*needs root or CAP_NET_BIND_SERVICE" "$work/session-none.log" &&
    grep -q "clock_ready mode=ntp state=ready" "$work/session-none.log" ||
    fail "an unprivileged session did not fall back to NTP: $(cat "$work/session-none.log")"

echo "passed in $(python3 -c "print(round($(date +%s.%N) - $started, 1))") s"
