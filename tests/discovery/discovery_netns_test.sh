#!/usr/bin/env bash
# Discovery with real parts: two hosts made of network namespaces (the rig in
# tests/support), each with its own system bus and avahi-daemon. Host b
# advertises an AirPlay receiver on both service types and a busy Cast TV;
# host a runs vellatone --headless on a private sound server and advertises
# a receiver of its own. Checks: vellatonectl outputs lists b's receiver once,
# resolved, and the TV with what it plays, and never a's own receiver; the
# receiver is added as a row by its id; a row whose receiver leaves the
# network says so; with no avahi-daemon the lists are empty and the log says
# why once.
#
#   discovery_netns_test.sh BIN_DIR REPO_DIR
set -uo pipefail

BIN=$(realpath "$1")
REPO=$(realpath "$2")
source "$REPO/tests/support/netns-rig.sh"
if reason=$(rig_skip_reason) && [[ -n $reason ]]; then
    echo "skipped: $reason"
    exit 77
fi
command -v avahi-publish >/dev/null || { echo "skipped: avahi-utils is not installed"; exit 77; }

source "$REPO/tests/support/app_test.sh"
app_test_on_exit() {
    if [[ -n $app_pid ]]; then kill -TERM "$app_pid" 2>/dev/null; wait "$app_pid" 2>/dev/null; fi
    app_pid=
    rig_down
}
app_test_extra_logs='rig/*/avahi.log'
app_test_begin vt-discovery speakers:48000:Speakers

# Runs the app on host a (or, with "outside", on no rig at all).
launch() {
    local where=$1 log=$2
    if [[ $where == outside ]]; then
        DBUS_SYSTEM_BUS_ADDRESS=unix:path=$work/no-such-bus "$BIN/vellatone" --headless \
            2>"$work/$log" &
    else
        (rig_exec a "$BIN/vellatone" --headless 2>"$work/$log") &
    fi
    app_pid=$!
    await_app
}

step "two hosts, each with its own bus and avahi-daemon"
rig_up "$work/rig" || fail "the rig did not come up"
rig_bg b avahi-publish -s "A1B2C3D4E5F6@Kitchen" _raop._tcp 5000 "am=AirPort10,115" "et=0,1"
rig_bg b avahi-publish -s "Kitchen" _airplay._tcp 7000 "model=AirPort10,115" "deviceid=A1:B2:C3:D4:E5:F6"
rig_bg b avahi-publish -s "Chromecast-9f2" _googlecast._tcp 8009 "id=9f2c" "fn=Lounge TV" \
    "md=Chromecast" "st=1" "rs=YouTube"
# This computer's own receiver: at one of its own addresses.
rig_bg a avahi-publish -s "Own Speaker" _raop._tcp 5000 "am=Linux"

step "the receiver and the TV are listed by discovery alone"
launch rig app1.log
await_outputs '^air:Kitchen\tairplay\tKitchen\tAirPlay$'
await_outputs '^cast:9f2c\tcast\tLounge TV\tGoogle Cast · in use, playing YouTube$'
sleep 2
ctl outputs >"$work/outputs"
[[ $(grep -c '^air:' "$work/outputs") == 1 ]] ||
    fail "the receiver on both services is not listed exactly once: $(cat "$work/outputs")"
grep -q 'Own Speaker' "$work/outputs" && fail "this computer's own receiver is listed"

step "the receiver becomes a row, and leaves the list of what can be added"
ctl add air:Kitchen || fail "add air:Kitchen"
[[ $(ctl status | field "[r['kind'] for r in s['rows']].count('airplay')") == 1 ]] ||
    fail "no AirPlay row: $(ctl status)"
ctl outputs | grep -q '^air:Kitchen' && fail "a receiver with a row is still offered"

step "no avahi-daemon: empty lists, the rest works, and the log says why once"
kill -TERM "$app_pid"; wait "$app_pid"; app_pid=
launch outside app2.log
sleep 1
ctl outputs >"$work/outputs" || fail "outputs failed without avahi"
grep -qE '^(air|cast):' "$work/outputs" && fail "a network output without avahi: $(cat "$work/outputs")"
grep -q '^uid:speakers' "$work/outputs" || fail "the sound devices are not listed without avahi"
[[ $(grep -c 'no avahi-daemon answers' "$work/app2.log") == 1 ]] ||
    fail "the log does not say once that avahi-daemon is missing"
kill -TERM "$app_pid"; wait "$app_pid" || fail "the app did not exit cleanly"; app_pid=
echo PASS
