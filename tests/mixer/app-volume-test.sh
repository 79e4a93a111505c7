#!/usr/bin/env bash
# Per-app volume with real parts, on the server VELLATONE_TEST_SERVER names:
# three players (a "music" app, a "calls" app and an alert, each a tone of
# its own at its own starting volume) play while the app runs to the
# speaker "living".
#
#   app-volume-test.sh BIN_DIR REPO_DIR
#
# Checks: music at 0.5 is half its original factor on its sink input, and
# in the recorded mix its tone alone drops by 6.02 dB while the others stay
# within 0.1 dB; solo silences the others; after kill -9 the next launch
# gives every original back exactly (the levels set then apply to them
# again), and so does a clean quit; an alert that starts while its group
# is muted starts muted; a music stream that ended turned down, or one that
# starts after the quit, starts at the original, not ours: nothing the
# server keeps outlives us, and what it keeps of other apps stays.
set -euo pipefail

BIN=$(realpath "$1")
REPO=$(realpath "$2")
. "$REPO/tests/support/app_test.sh"
players=()
app_test_on_exit() { [[ ${#players[@]} -eq 0 ]] || kill "${players[@]}" 2>/dev/null || true; }
app_test_begin vt-app-volume living:48000:Living
pactl set-default-sink living

# Desktop entries make them apps a person would know.
apps=$HOME/.local/share/applications
mkdir -p "$apps"
printf '[Desktop Entry]\nType=Application\nName=Test Music\nExec=test-music\n' >"$apps/test.music.desktop"
printf '[Desktop Entry]\nType=Application\nName=Test Calls\nExec=test-calls\n' >"$apps/test.calls.desktop"

declare -A hz=([music]=440 [calls]=1000 [alert]=2500)
declare -A start=([music]=52428 [calls]=45875 [alert]=58982) # 80 %, 70 %, 90 %
for who in music calls alert; do
    sox -n -r 48000 -c 2 "$work/$who.wav" synth 600 sine "${hz[$who]}" vol 0.2 2>/dev/null
done

# Starts a player; its sink input goes to input[WHO], its pid to player[WHO].
declare -A input player
play() {
    local who=$1 role=() old=${input[$1]:-} idx= _
    [[ $who == alert ]] && role=(--property=media.role=event)
    paplay --property=application.id="test.$who" --property=application.name="$who" "${role[@]}" \
        "$work/$who.wav" </dev/null >/dev/null 2>&1 &
    player[$who]=$!
    players+=($!)
    for _ in $(seq 100); do
        idx=$(input_of "$who") && [[ $idx != "$old" ]] && break
        idx=
        sleep 0.05
    done
    [[ -n $idx ]] || fail "no stream for $who"
    input[$who]=$idx
}
# The sink input of a player, by the application.id it carries.
input_of() {
    pactl list sink-inputs | awk -v want="test.$1" -v role="$1" '
        /^Sink Input #/ { idx = substr($3, 2) }
        /application.id = / { gsub(/"/, "", $3); if ($3 == want) found = idx }
        END { if (found == "") exit 1; print found }'
}
# The raw volume of each channel of a sink input.
volume_of() {
    pactl list sink-inputs | awk -v want="#$1" '
        /^Sink Input #/ { on = ($3 == want) }
        on && /^[ \t]+Volume:/ {
            for (i = 2; i < NF; i++) if ($i ~ /:$/) printf "%s ", $(i + 1)
            exit
        }'
}
# Waits (event-driven by polling, at most 5 s) until a sink input has volume V on each channel.
await_volume() {
    local _
    for _ in $(seq 100); do
        [[ $(volume_of "$1") == "$2 $2 " ]] && return 0
        sleep 0.05
    done
    fail "${3:-stream $1} has volume '$(volume_of "$1")', not $2"
}
# Where the levels are read: the capture sink's monitor, the server's mix of
# the players, which is all the mixer acts on. At the speaker the engine's
# reading speed moves the tones: it steers by up to a few hundred ppm (a
# 2.5 kHz tone up to 1 Hz off, and moving), and after a stall under load
# it catches up by thousands, a short gap now and then. A level read there
# wanders with the engine, not the mixer.
LEVEL_SOURCE=${LEVEL_SOURCE:-vellatone.monitor}
# Tone levels in dB, one line "music calls alert": the mean power of eight
# 0.1 s blocks, each through a flat-top window, which reads a tone within
# 0.02 dB anywhere in its 10 Hz bin (one Hann window over 0.8 s loses up to
# 1.4 dB on a tone half its 1.25 Hz bin off), so LEVEL_SOURCE=living.monitor
# reads the speaker as well while the engine is steady.
levels() {
    timeout 5 parecord --device="$LEVEL_SOURCE" --raw --format=float32le --rate=48000 --channels=1 \
        --latency-msec=20 >"$work/rec.raw" &
    local rec=$!
    sleep 1.2
    kill "$rec" 2>/dev/null; wait "$rec" 2>/dev/null || true
    python3 - "$work/rec.raw" "${hz[music]}" "${hz[calls]}" "${hz[alert]}" <<'PY'
import array, math, sys
a = array.array("f"); a.frombytes(open(sys.argv[1], "rb").read())
n, blocks = 4800, 8  # the last 0.8 s: the first blocks may be old
x = a[-n * blocks:]
if len(x) < n * blocks: sys.exit("only %d frames recorded" % len(a))
ft = (0.21557895, 0.41663158, 0.277263158, 0.083578947, 0.006947368)
w = [sum((-1) ** k * ft[k] * math.cos(2 * math.pi * k * i / n) for k in range(5)) for i in range(n)]
half_gain = sum(w) / 2  # a sine of amplitude A reads A * half_gain
def level(f):
    c = 2 * math.cos(2 * math.pi * f / 48000); power = 0.0
    for b in range(blocks):
        s1 = s2 = 0.0
        for v, h in zip(x[b * n:(b + 1) * n], w):
            s1, s2 = v * h + c * s1 - s2, s1
        power += (s1 * s1 + s2 * s2 - c * s1 * s2) / blocks
    return 10 * math.log10(max(power, 1e-30) / half_gain ** 2)
print(" ".join("%.3f" % level(float(f)) for f in sys.argv[2:]))
PY
}
near() { python3 -c "import sys; sys.exit(0 if abs($1 - ($2)) <= $3 else 1)"; }

step "three players, each at its own volume"
for who in music calls alert; do
    play "$who"
    pactl set-sink-input-volume "${input[$who]}" "${start[$who]}"
done

launch 1
ctl add uid:living >/dev/null || fail "add living"
ctl start >/dev/null || fail "start"
# The catalog learns the streams from the server's answers after Start:
# wait for them, at most 5 s.
for _ in $(seq 50); do
    ctl apps >"$work/apps"
    grep -qP "^test\.music\tTest Music\t1\t-\tplaying$" "$work/apps" && break
    sleep 0.1
done
grep -qP "^test\.music\tTest Music\t1\t-\tplaying$" "$work/apps" || fail "apps: $(cat "$work/apps")"
grep -qP "^alerts\tAlert sounds\t" "$work/apps" || fail "no alert sounds: $(cat "$work/apps")"

step "music at 0.5: its sink input at half its factor, its tone alone 6 dB down"
# Audio flows in small blocks before anything is measured.
for _ in $(seq 50); do
    read -r m _ _ < <(levels) && python3 -c "import sys; sys.exit(0 if $m > -60 else 1)" && break
done
read -r m0 c0 a0 < <(levels)
ctl app test.music 0.5 || fail "app"
half=$(python3 -c "print(round((0.5 * (${start[music]} / 65536) ** 3) ** (1 / 3) * 65536))")
await_volume "${input[music]}" "$half" music
read -r m1 c1 a1 < <(levels)
echo "levels before: $m0 $c0 $a0 dB; after: $m1 $c1 $a1 dB"
near "$m1 - $m0" -6.0206 0.1 || fail "music changed by $(python3 -c "print($m1 - $m0)") dB"
near "$c1" "$c0" 0.1 || fail "calls moved from $c0 to $c1 dB"
near "$a1" "$a0" 0.1 || fail "the alert moved from $a0 to $a1 dB"

step "solo silences the others"
ctl app-solo test.calls || fail "solo"
await_volume "${input[music]}" 0 music
await_volume "${input[alert]}" 0 alert
read -r m2 c2 _ < <(levels)
near "$c2" "$c0" 0.1 || fail "calls under solo at $c2 dB, was $c0"
ctl app-solo off || fail "solo off"
await_volume "${input[alert]}" "${start[alert]}" alert
ctl app alerts 0.25 || fail "alerts level"
quarter=$(python3 -c "print(round((0.25 * (${start[alert]} / 65536) ** 3) ** (1 / 3) * 65536))")
await_volume "${input[alert]}" "$quarter" alert
# The level reaches the settings file 0.4 s after the last edit.
for _ in $(seq 40); do
    grep -q '"alerts":{"level":0.25' "$VELLATONE_CONFIG_DIR/settings.json" 2>/dev/null && break
    sleep 0.05
done

step "kill -9, then the next launch gives every original back"
kill -9 "$app_pid"; wait "$app_pid" 2>/dev/null || true
[[ $(volume_of "${input[music]}") != "${start[music]} ${start[music]} " ]] ||
    fail "music was not turned down before the crash"
# Meanwhile the alerts' group is muted, as its header in the window would.
python3 - "$VELLATONE_CONFIG_DIR/settings.json" <<'PY'
import json, sys
settings = json.load(open(sys.argv[1]))
for group in settings["appMixer"]["groups"]:
    if group["id"] == "notifications":
        group["muted"] = True
json.dump(settings, open(sys.argv[1], "w"))
PY
launch 2
# The originals came back, and the levels the user set apply to them again
# (not to what the dead run left).
await_volume "${input[music]}" "$half" "music after the crash"
await_volume "${input[alert]}" 0 "the alert, its group muted, after the crash"
await_volume "${input[calls]}" "${start[calls]}" "calls after the crash"

step "an alert that starts while its group is muted starts muted"
kill "${player[alert]}"
play alert
await_volume "${input[alert]}" 0 "the new alert stream"

step "a stream that ends turned down leaves nothing of ours behind"
kill "${player[music]}"
play music # the server gives it our level, and we keep it
await_volume "${input[music]}" "$half" "the new music stream"

step "quit gives every original back, and a new stream starts at its own level"
terminate
for who in calls alert; do await_volume "${input[$who]}" "${start[$who]}" "$who after quit"; done
await_volume "${input[music]}" "${start[music]}" "music after quit"
kill "${player[music]}" "${player[calls]}"
play music
play calls
sleep 0.5 # WirePlumber gives a new stream its kept volume a moment after it appears
await_volume "${input[music]}" "${start[music]}" "a music stream after quit"
# What the server keeps of an app we never turned down is still there.
await_volume "${input[calls]}" "${start[calls]}" "a calls stream after quit"
echo "PASS ($server)"
