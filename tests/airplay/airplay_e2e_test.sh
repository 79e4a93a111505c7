#!/usr/bin/env bash
# AirPlay with real parts: Debian's shairport-sync as the receiver on host b
# of the namespace rig, playing through its "pa" backend into the null sink
# "airport" of a private sound server (the receiver's room); the headless
# app on host a with a speaker "living" on the same server. Checks: the
# receiver is listed by discovery alone; add and start make it play (sound
# at airport's monitor, the row streaming with its lag); a receiver that dies
# mid-stream plays again when it is back; stop leaves no tool process
# behind; our own AirPlay 2 receiver, found on the network as any other,
# plays through the same rows (pairing, the encrypted session, PTP from the
# app's shared clock) with nothing against the protocol; a receiver with a
# password asks for it, refuses a wrong one, and
# plays with the right one, which is kept across a restart of the app. The
# track a real player (mpv with mpv-mpris, on a private session bus) plays
# reaches the receiver's metadata pipe: title, artist, album and cover.
#
#   airplay_e2e_test.sh BIN_DIR REPO_DIR
set -uo pipefail

BIN=$(realpath "$1")
REPO=$(realpath "$2")
source "$REPO/tests/support/netns-rig.sh"
if reason=$(rig_skip_reason) && [[ -n $reason ]]; then
    echo "skipped: $reason"
    exit 77
fi
command -v shairport-sync >/dev/null || { echo "skipped: shairport-sync is not installed"; exit 77; }
[[ -x $BIN/vellatone-airplay ]] || { echo "skipped: no vellatone-airplay built"; exit 77; }

source "$REPO/tests/support/app_test.sh"
source "$REPO/tests/support/media_player.sh"
receiver_pid= noise_pid= meta_pid=
app_test_on_exit() {
    [[ -n $noise_pid ]] && kill "$noise_pid" 2>/dev/null
    [[ -n $meta_pid ]] && kill "$meta_pid" 2>/dev/null
    media_player_stop
    if [[ -n $app_pid ]]; then kill -TERM "$app_pid" 2>/dev/null; wait "$app_pid" 2>/dev/null; fi
    app_pid=
    rig_down
}
app_test_extra_logs='receiver*.log'
app_test_begin vt-airplay-e2e speakers:48000:Speakers living:48000:Living airport:44100:Airport
pactl set-default-sink speakers
export VELLATONE_DATA_DIR=$work/data
export VELLATONE_CLIAIRPLAY=$BIN/vellatone-airplay
row_transport() { ctl status | field "[r['transport'] for r in s['rows'] if r['kind']=='airplay'][0]"; }

receiver() {  # name [password]
    local conf=$work/shairport-$1.conf
    {
        printf 'general = { name = "%s"; port = 5000; output_backend = "pa"; ' "$1"
        printf 'mdns_backend = "avahi"; udp_port_base = 6001;'
        [[ -n ${2:-} ]] && printf ' password = "%s";' "$2"
        printf ' };\npa = { server = "%s"; sink = "airport"; };\n' "$PULSE_SERVER"
        printf 'metadata = { enabled = "yes"; include_cover_art = "yes"; pipe_name = "%s"; };\n' \
            "$work/metadata-$1"
    } >"$conf"
    (rig_exec b shairport-sync -c "$conf" -u >"$work/receiver-$1.log" 2>&1) &
    receiver_pid=$!
    RIG_PIDS+=("$receiver_pid")
}
stop_receiver() {
    kill "$receiver_pid" 2>/dev/null
    wait "$receiver_pid" 2>/dev/null
    receiver_pid=
}
launch() {
    (rig_exec a "$BIN/vellatone" --headless 2>"$work/app$1.log") &
    app_pid=$!
    await_app
}
await() {  # seconds, description, command...
    local seconds=$1 what=$2
    shift 2
    for _ in $(seq $((seconds * 10))); do
        "$@" && return 0
        sleep 0.1
    done
    fail "$what"
}
# Peak level at the receiver's sink over half a second of its monitor.
airport_level() {
    timeout 3 parec -d airport.monitor --rate=44100 --channels=1 --format=s16le \
        --latency-msec=20 2>/dev/null | head -c 44100 |
        python3 -c "import sys,array; a=array.array('h',sys.stdin.buffer.read()); print(max((abs(x) for x in a), default=0))"
}
plays() { (( $(airport_level) > 1000 )); }
tools_running() { pgrep -f "^$BIN/vellatone-airplay " >/dev/null; }

if media_player_ready; then
    media_player_bus || fail "no session bus for the player"
elif [[ -n ${CI:-} ]]; then
    fail "mpv, mpv-mpris or metaflac is not installed"
fi

step "two hosts; shairport-sync on b, the app on a"
rig_up "$work/rig" || fail "the rig did not come up"
receiver Kitchen
launch 1
await_outputs '^air:Kitchen\tairplay\tKitchen\tAirPlay$'

step "add and start: the receiver plays what the computer plays"
ctl add air:Kitchen >/dev/null || fail "add"
ctl add uid:living >/dev/null || fail "add living"
sox -n -r 48000 -c 2 -b 32 -e floating-point -t raw "$work/noise.raw" synth 120 whitenoise vol 0.5 2>/dev/null
ctl start >/dev/null || fail "start"
pacat --playback --rate=48000 --channels=2 --format=float32le --client-name=e2e-noise <"$work/noise.raw" &
noise_pid=$!
await 20 "the row never said it streams: $(row_transport)" bash -c "[[ \$('$BIN/vellatonectl' status) == *'streaming · '*'s lag, auto-synced'* ]]"
await 10 "no sound reached the receiver's room (level $(airport_level), row: $(row_transport))" plays
echo "row: $(row_transport)"

if [[ -n $media_player_bus_pid ]]; then
    step "the track mpv plays reaches the receiver's metadata pipe"
    await 5 "shairport-sync made no metadata pipe" test -p "$work/metadata-Kitchen"
    cat "$work/metadata-Kitchen" >"$work/metadata.txt" &
    meta_pid=$!
    media_player_play "Kitchen Song" "The Receivers" "Pipe Dreams"
    # shairport-sync writes each item's data in base64: "core" "minm" is the
    # title, "asar" the artist, "asal" the album; "ssnc" "PICT" the cover.
    b64() { printf '%s' "$1" | base64 -w0; }
    for want in "$(b64 'Kitchen Song')" "$(b64 'The Receivers')" "$(b64 'Pipe Dreams')" \
        "<code>50494354</code>"; do
        await 10 "the metadata pipe never carried $want: $(ctl track)" grep -qF "$want" "$work/metadata.txt"
    done
    echo "track: $(ctl track)"
    media_player_stop
    kill "$meta_pid" 2>/dev/null
    meta_pid=
fi

step "the receiver dies mid-stream, and plays again when it is back"
stop_receiver
await 20 "the row still says it streams" bash -c "[[ \$('$BIN/vellatonectl' status) != *'streaming · '* ]]"
echo "row: $(row_transport)"
receiver Kitchen
await 30 "the row never streamed again: $(row_transport)" bash -c "[[ \$('$BIN/vellatonectl' status) == *'streaming · '*'s lag, auto-synced'* ]]"
await 10 "no sound reached the receiver's room again" plays

step "stop: no tool process is left"
ctl stop >/dev/null || fail "stop"
await 5 "a vellatone-airplay process is still running" bash -c "! pgrep -f '^$BIN/vellatone-airplay ' >/dev/null"

step "our own AirPlay 2 receiver on b plays through the same rows"
(rig_exec b "$BIN/ap2-test-receiver" "$RIG_ADDR_b" 7000 >"$work/receiver-ap2.log" 2>&1) &
ap2_pid=$!
RIG_PIDS+=("$ap2_pid")
rig_bg b avahi-publish -s Patio _airplay._tcp 7000 deviceid=0A:0B:0C:0D:0E:0F \
    features=0x200,0x10240 flags=0x4 model=VellatoneTestReceiver1,1 srcvers=366.0
await_outputs '^air:Patio\tairplay\tPatio\tAirPlay$'
ctl add air:Patio >/dev/null || fail "add Patio"
patio() { ctl status | field "[r['transport'] for r in s['rows'] if r['name']=='Patio'][0]"; }
patio_streams() { [[ $(patio) == *'streaming · '*'s lag, auto-synced'* ]]; }
# The receiver prints its loudest sample as sound comes.
patio_plays() {
    local peak
    peak=$(grep -o 'peak=[0-9]*' "$work/receiver-ap2.log" | tail -1 | cut -d= -f2)
    (( ${peak:-0} > 1000 ))
}
ctl start >/dev/null || fail "start with Patio"
await 20 "the AirPlay 2 row never said it streams: $(patio)" patio_streams
await 10 "no sound reached our AirPlay 2 receiver: $(tail -3 "$work/receiver-ap2.log")" patio_plays
echo "row: $(patio)"
ctl stop >/dev/null || fail "stop with Patio"
# On its way out the receiver counts what the sessions did against the protocol.
kill "$ap2_pid" && wait "$ap2_pid"
grep -q '^\[receiver\] violations=0$' "$work/receiver-ap2.log" ||
    fail "the session broke the protocol: $(grep violation "$work/receiver-ap2.log")"
patio_slot=$(ctl status | field "[r['slot'] for r in s['rows'] if r['name']=='Patio'][0]")
ctl remove "$patio_slot" >/dev/null || fail "remove Patio"

step "a receiver with a password asks for it; a wrong one is refused, the right one kept"
stop_receiver
receiver Kitchen secret
sleep 2
ctl start >/dev/null || fail "start again"
await 20 "the row never asked for its password: $(row_transport)" bash -c "[[ \$('$BIN/vellatonectl' status) == *'needs its password'* ]]"
grep -q 'Kitchen requires a password (' "$work/app1.log" || fail "the app did not ask for the password"
slot=$(ctl status | field "[r['slot'] for r in s['rows'] if r['kind']=='airplay'][0]")
ctl password "$slot" <<<"wrong" >/dev/null || fail "password"
await 20 "the wrong password was not refused in the design's words" \
    grep -q 'requires a password. It refused the password saved here. Enter the current one.' "$work/app1.log"
ctl password "$slot" <<<"secret" >/dev/null || fail "password"
await 20 "the right password never played: $(row_transport)" bash -c "[[ \$('$BIN/vellatonectl' status) == *'streaming · '* ]]"
await 10 "no sound reached the receiver's room with the password" plays
ctl stop >/dev/null
terminate
launch 2
ctl start >/dev/null || fail "start after a restart"
await 20 "the kept password did not play after a restart: $(row_transport)" bash -c "[[ \$('$BIN/vellatonectl' status) == *'streaming · '* ]]"
grep -q 'requires a password' "$work/app2.log" && fail "the kept password was asked for again"
ctl stop >/dev/null
terminate
echo PASS
