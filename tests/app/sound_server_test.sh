#!/usr/bin/env bash
# The sound server as people have it, with the real application and a private
# server (PulseAudio, or PipeWire with VELLATONE_TEST_SERVER=pipewire): sinks
# "speakers", "living" (the default, 48 kHz) and "kitchen" (44.1 kHz); rows
# for living and kitchen.
#
#   sound_server_test.sh BIN_DIR REPO_DIR
#
# Checks, printing every figure:
# - loudness: with the speakers at 100, 50 and 20 %, a tone is as loud at each
#   speaker after Start as before it (within 0.5 dB), and Stop gives each
#   speaker its own volume back;
# - leak: one of our streams turned to 50 % with pactl, Stop, Start: the
#   others play at 100 %;
# - restart: the server killed while playing is told at once (running, rows
#   silent, "waiting for ..."); started again with the same sinks, both
#   speakers sound within 2 s, timed by recording them from that moment;
# - crash: speakers at 50 %, Start, kill -9, relaunch: the speakers are at
#   50 % again, and no capture sink is left after the next quit;
# - a player started after a stop, a quit and a crash-and-relaunch plays on
#   the user's speaker, and neither server keeps a target for it (or any
#   other program's stream) on the capture sink; WirePlumber keeps nothing of
#   the capture sink itself.
set -euo pipefail

BIN=$(realpath "$1")
REPO=$(realpath "$2")
LOUDNESS_LIMIT_DB=0.5
SOUND_WITHIN_S=2.0

sinks=(speakers:48000:Speakers living:48000:Living kitchen:44100:Kitchen)
. "$REPO/tests/support/app_test.sh"
tone_pid=
app_test_on_exit() { [[ -z $tone_pid ]] || kill "$tone_pid" 2>/dev/null; }
app_test_begin vt-server "${sinks[@]}"
pactl set-default-sink living

# A 1 kHz tone for as long as the test runs, from another program.
sox -n -r 48000 -c 2 -b 32 -e floating-point -t raw "$work/tone.raw" synth 300 sine 1000 vol 0.25 \
    2>/dev/null
tone() {
    pacat --playback --rate=48000 --channels=2 --format=float32le --latency-msec=50 \
        --client-name=vt-test-tone "$@" <"$work/tone.raw" &
}
start_tone() { tone; tone_pid=$!; }
stop_tone() { [[ -n $tone_pid ]] && { kill "$tone_pid" 2>/dev/null || true; wait "$tone_pid" 2>/dev/null || true; }; tone_pid=; }

rate_of() { [[ $1 == kitchen ]] && echo 44100 || echo 48000; }
# The level in dB of the last half of one second recorded at a speaker: the
# median of its 10 ms blocks, so that a dropout on a busy machine (measured
# elsewhere) does not pass for a change of volume.
level_db() {
    local sink=$1 rate
    rate=$(rate_of "$sink")
    pacat --record --device="$sink.monitor" --rate="$rate" --channels=2 --format=float32le \
        --latency-msec=20 2>/dev/null | head -c $((rate * 8)) >"$work/rec.raw" || true
    python3 - "$work/rec.raw" "$rate" <<'PY'
import sys, math
from array import array
x = array("f")
with open(sys.argv[1], "rb") as f:
    data = f.read()
x.frombytes(data[: len(data) // 4 * 4])
x = x[len(x) // 2:]
block = 2 * int(sys.argv[2]) // 100
levels = sorted(math.sqrt(sum(v * v for v in x[i:i + block]) / block)
                for i in range(0, len(x) - block + 1, block))
rms = levels[len(levels) // 2] if levels else 0.0
print("%.2f" % (20 * math.log10(rms) if rms > 0 else -200.0))
PY
}
# A level once two recordings in a row agree within 0.1 dB: a stream just
# started or moved takes a moment to play steadily.
steady_level_db() {
    local last now
    last=$(level_db "$1")
    for _ in $(seq 6); do
        now=$(level_db "$1")
        within "$last" "$now" 0.1 && { echo "$now"; return; }
        last=$now
    done
    echo "$now"
}
volume_of() { pactl get-sink-volume "$1" | awk 'NR == 1 {gsub("%", "", $5); print $5}'; }
sink_of_player() {
    local id
    id=$(pactl list short sinks | awk '{print $1, $2}')
    pactl list sink-inputs | python3 -c '
import sys, re
blocks = sys.stdin.read().split("Sink Input #")
for b in blocks:
    if "application.name = \"vt-test-tone\"" in b:
        print(re.search(r"Sink: (\d+)", b).group(1)); break'
}
player_on() {  # the tone's stream plays on this sink
    local want
    want=$(pactl list short sinks | awk -v n="$1" '$2 == n {print $1}')
    for _ in $(seq 40); do
        [[ $(sink_of_player) == "$want" ]] && return 0
        sleep 0.05
    done
    return 1
}
within() {  # |a - b| <= limit
    python3 -c "import sys; a, b, l = map(float, sys.argv[1:]); sys.exit(0 if abs(a - b) <= l else 1)" "$@"
}

launch 1
ctl add uid:living >/dev/null || fail "add living"
ctl add uid:kitchen >/dev/null || fail "add kitchen"

step "loudness before and after Start"
start_tone
for v in 100 50 20; do
    pactl set-sink-volume living "$v%"
    pactl set-sink-volume kitchen "$v%"
    player_on living || fail "the tone does not play on living"
    sleep 0.5
    living_before=$(steady_level_db living)
    tone --device=kitchen
    kitchen_tone=$!
    sleep 0.5
    kitchen_before=$(steady_level_db kitchen)
    kill "$kitchen_tone"; wait "$kitchen_tone" 2>/dev/null || true
    ctl start >/dev/null || fail "start"
    sleep 1.5
    living_after=$(steady_level_db living)
    kitchen_after=$(steady_level_db kitchen)
    ctl stop >/dev/null || fail "stop"
    echo "speakers at $v %: living $living_before -> $living_after dB, kitchen $kitchen_before -> $kitchen_after dB"
    within "$living_before" "$living_after" "$LOUDNESS_LIMIT_DB" || fail "living's loudness jumped at $v %"
    within "$kitchen_before" "$kitchen_after" "$LOUDNESS_LIMIT_DB" || fail "kitchen's loudness jumped at $v %"
    [[ $(volume_of living) == "$v" && $(volume_of kitchen) == "$v" ]] ||
        fail "after stop living is at $(volume_of living) %, kitchen at $(volume_of kitchen) %, not $v %"
done
pactl set-sink-volume living 100%
pactl set-sink-volume kitchen 100%

step "a player after a stop plays on the user's speaker"
stop_tone
start_tone
player_on living || fail "a player started after stop is not on living"

step "one output stream turned down does not turn the others down"
ctl start >/dev/null || fail "start"
our_streams() {
    pactl list sink-inputs | python3 -c '
import sys, re
for b in sys.stdin.read().split("Sink Input #")[1:]:
    name = re.search(r"media.name = \"([^\"]*)\"", b)
    if name and name.group(1).startswith("Vellatone →"):
        vol = re.search(r"Volume: front-left: \d+ / +(\d+)%", b).group(1)
        print(b.split("\n")[0].strip(), vol, name.group(1))'
}
sleep 0.5
our_streams >"$work/streams"
[[ $(grep -c . "$work/streams") == 2 ]] || fail "our streams: $(cat "$work/streams")"
living_stream=$(awk '/→ Living/ {print $1}' "$work/streams")
pactl set-sink-input-volume "$living_stream" 50%
ctl stop >/dev/null && ctl start >/dev/null || fail "stop, start"
# The turned-down stream itself plays at 100 % again too: the server kept
# its 50 % (WirePlumber gives it to the next stream of that key a moment
# after it opens), and the app clears what was kept before it opens again.
for _ in $(seq 30); do
    sleep 0.1
    our_streams >"$work/streams"
    [[ $(grep -c " 100 " "$work/streams") == 2 ]] && break
done
cat "$work/streams"
grep "→ Kitchen" "$work/streams" | grep -q " 100 " || fail "the kitchen stream did not start at 100 %"
grep "→ Living" "$work/streams" | grep -q " 100 " || fail "the living stream did not start at 100 %"

step "the server restarts while playing"
[[ $(pactl get-default-sink) == vellatone ]] || fail "not playing"
"$REPO/scripts/private-pulse.sh" kill "$work/pulse"
tone_pid=  # the player died with the server
sleep 0.5
status=$(ctl status)
echo "$status" | field "s['running'], s.get('soundServer'), [r['audible'] for r in s['rows']]"
[[ $(echo "$status" | field "s['running']") == True ]] || fail "the switch went off"
[[ $(echo "$status" | field "s.get('soundServer', '')") == waiting\ for* ]] || fail "status: $status"
[[ $(echo "$status" | field "any(r['audible'] for r in s['rows'])") == False ]] ||
    fail "rows still say they play: $status"
sleep 2.5
"$REPO/scripts/private-pulse.sh" start "$work/pulse" "${sinks[@]}" >/dev/null
back=$(date +%s.%N)
# PulseAudio's null sinks, just made, render two seconds ahead and keep that
# lead when a stream arrives, which a sound card never does: what plays into
# them is heard, and reaches their monitors, two seconds late, and that holds
# for the player too, which lands on "speakers" until the app takes the
# default again. Silence on every sink asks it for a short latency, and a
# suspend and resume on PulseAudio starts its clock again with it, so that
# what is measured is our recovery (the app does the same for its own sink).
for s in speakers living kitchen; do
    pacat --playback --device=$s --rate=48000 --channels=2 --format=float32le --latency-msec=20 \
        --client-name=vt-test-silence </dev/zero &
done
if [[ $server == pulseaudio ]]; then
    for _ in $(seq 40); do
        [[ $(pactl list sink-inputs | grep -c 'application.name = "vt-test-silence"') == 3 ]] && break
        sleep 0.02
    done
    for s in speakers living kitchen; do pactl suspend-sink $s 1 && pactl suspend-sink $s 0; done
fi
start_tone  # as a real player reconnects
# Both speakers recorded from the moment the server is back, each until it
# sounds. A monitor hands on what was played as it is played, so when the
# first loud block arrives is when the speaker sounded, within the
# recording's 20 ms latency.
heard=$(python3 - "$back" 2>"$work/heard.err" <<'PY'
import selectors, subprocess, sys, time
from array import array
back = float(sys.argv[1])
sel = selectors.DefaultSelector()
soundedAt = {}
for sink, rate in (("living", 48000), ("kitchen", 44100)):
    p = subprocess.Popen(["pacat", "--record", "--device=%s.monitor" % sink, "--rate=%d" % rate,
                          "--channels=2", "--format=float32le", "--latency-msec=20"],
                         stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    sel.register(p.stdout, selectors.EVENT_READ, (sink, p, bytearray()))
deadline = time.time() + 10
while len(soundedAt) < 2 and time.time() < deadline:
    for key, _ in sel.select(timeout=0.5):
        sink, p, pending = key.data
        data = key.fileobj.read1(65536)
        arrived = time.time() - back
        if not data:
            sel.unregister(key.fileobj)
            continue
        pending += data
        whole = len(pending) // 4 * 4
        x = array("f", bytes(pending[:whole]))
        del pending[:whole]
        if sink not in soundedAt and any(abs(v) > 0.0316 for v in x):
            soundedAt[sink] = arrived
            sel.unregister(key.fileobj)
            p.kill()
for sink, at in sorted(soundedAt.items()):
    print("%s sounded %.2f s after the server came back" % (sink, at), file=sys.stderr)
if len(soundedAt) == 2:
    print("%.2f" % max(soundedAt.values()))
PY
) || true
cat "$work/heard.err"
[[ -n $heard ]] || fail "no sound at both speakers after the server came back: $(ctl status)"
echo "sound at both speakers within $heard s of the server coming back"
within "$heard" 0 "$SOUND_WITHIN_S" || fail "longer than $SOUND_WITHIN_S s"
[[ $(ctl status | field "s.get('soundServer', '')") != waiting* ]] || fail "still waiting"
[[ $(pactl get-default-sink) == vellatone ]] || fail "the default was not taken again"

step "stop after the restart gives the output back; a clean quit is no crash"
ctl stop >/dev/null || fail "stop"
[[ $(pactl get-default-sink) == living ]] || fail "after stop the default is $(pactl get-default-sink)"
player_on living || fail "the player is not back on living"
terminate
stop_tone
start_tone
player_on living || fail "a player started after quit is not on living"
launch 2
sleep 0.3
grep -q "^notice crash:" "$work/app2.log" && fail "a clean quit was reported as a crash"

step "volumes after a crash"
pactl set-sink-volume living 50%
pactl set-sink-volume kitchen 50%
ctl start >/dev/null || fail "start"
[[ $(volume_of living) == 100 ]] || fail "the row's volume did not stand in for living's"
kill -KILL "$app_pid"; wait "$app_pid" 2>/dev/null || true; app_pid=
stop_tone
launch 3
echo "after the crash and relaunch: living $(volume_of living) %, kitchen $(volume_of kitchen) %"
[[ $(volume_of living) == 50 && $(volume_of kitchen) == 50 ]] || fail "the speakers' volumes were not given back"
start_tone
player_on living || fail "a player started after a crash and relaunch is not on living"
terminate
pactl list short sinks | grep -q vellatone && fail "a capture sink is left after the quit"

step "no stored target of another program's stream points at the capture sink"
# What each server keeps about streams: WirePlumber's restore-stream state
# (keys with their targets), PulseAudio's module-stream-restore database (a
# record per stream key, with the device it was moved to, if any; read with
# strings, which also finds the keys of records since deleted). Our own
# streams' keys start with "vellatone-stream:".
if [[ $server == pipewire ]]; then
    stored=$(grep -i target "$work/pulse/home/.local/state/wireplumber/restore-stream" 2>/dev/null |
        grep vellatone | grep -v 'vellatone-stream:' || true)
else
    stored=$(find "$work/pulse/home/.config/pulse" -name '*stream-volumes.tdb' -exec strings -n 3 {} + |
        grep vellatone | grep -v 'vellatone-stream:' || true)
fi
[[ -z $stored ]] || fail "the server keeps a target on the capture sink: $stored"
# Nor anything of the capture sink itself: WirePlumber would put a volume kept
# for it back on the next one, over the copy of the speaker's. (It writes its
# state a second after a change; the sink lived far longer than that.)
if [[ $server == pipewire ]]; then
    kept=$(grep 'node.name:vellatone:' "$work/pulse/home/.local/state/wireplumber/restore-stream" \
        2>/dev/null || true)
    [[ -z $kept ]] || fail "WirePlumber keeps the capture sink's volume: $kept"
fi
echo "PASS"
