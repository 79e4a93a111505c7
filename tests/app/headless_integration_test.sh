#!/usr/bin/env bash
# The headless application with real parts: a private sound server with a
# default sink "speakers" and null sinks "living" (48 kHz), "kitchen"
# (44.1 kHz) and "den"; vellatone --headless with a fresh config folder and
# its own control socket; vellatonectl to drive it.
#
#   headless_integration_test.sh BIN_DIR REPO_DIR
#
# Checks: outputs are listed and added, den's delay set, start takes the
# default sink; noise played by another program comes out of the three
# speakers aligned as the delays say (within 1 ms here; scripts/measure-sync.sh
# measures the finer figure), none silent longer than the capture sink's
# monitor was near that moment plus 5 ms (a stall of the whole machine
# silences the capture too, and is no fault of ours); stop gives the default
# sink and the player's stream back; bad commands fail with a sentence;
# SIGTERM gives the sink back; rows survive a restart; after SIGKILL the next
# launch gives the sink back and raises the crash notice; a corrupted
# settings file is kept aside; with no sound server the app says so.
set -euo pipefail

BIN=$(realpath "$1")
REPO=$(realpath "$2")
SECONDS_MEASURED=${SECONDS_MEASURED:-8}
# A slot glides onto its place by speed alone over several seconds after the
# audio starts; measure once that is done.
SETTLE=${SETTLE:-15}
# Twice the half millisecond the speakers reach on a quiet machine: on a
# busy one the last fraction of a millisecond is still gliding out when the
# measurement starts, while a real fault in the timing costs whole
# milliseconds or more.
ALIGN_LIMIT_MS=${ALIGN_LIMIT_MS:-1.0}

. "$REPO/tests/support/app_test.sh"
noise_pid=
app_test_on_exit() { [[ -z $noise_pid ]] || kill "$noise_pid" 2>/dev/null; }
app_test_begin vt-headless speakers:48000:Speakers living:48000:Living kitchen:44100:Kitchen \
    den:48000:Den
pactl set-default-sink speakers
default_sink() { pactl get-default-sink; }

step "launch with a fresh config folder"
launch 1
[[ $(stat -c %a "$work/control") == 700 ]] || fail "the socket's folder is not 0700"
[[ $(stat -c %a "$VELLATONE_CONTROL_SOCKET") == 600 ]] || fail "the socket is not 0600"
ctl outputs >"$work/outputs"
for s in speakers living kitchen den; do
    grep -q "^uid:$s	other	" "$work/outputs" || fail "outputs does not list $s: $(cat "$work/outputs")"
done

step "add the three speakers, den 100 ms later, start"
for s in living kitchen den; do ctl add "uid:$s" || fail "add $s"; done
ctl delay 2 100 || fail "delay"
ctl start || fail "start"
[[ $(default_sink) == vellatone ]] || fail "the default sink is $(default_sink), not the capture sink"
[[ $(ctl status | field "s['running'], len(s['rows']), s['rows'][2]['trimMs']") == "True 3 100.0" ]] ||
    fail "status: $(ctl status)"
# A null sink's latency is all in its stream's timing: nothing to take on its word.
if ctl calibrate 1 0 reported 2>"$work/err"; then fail "a null sink's report was taken"; fi
grep -q "does not say it is meaningfully late" "$work/err" || fail "calibrate said: $(cat "$work/err")"

step "noise from another program, measured at the three speakers"
sox -n -r 48000 -c 2 -b 32 -e floating-point -t raw "$work/noise.raw" \
    synth $((SECONDS_MEASURED + SETTLE + 10)) whitenoise vol 0.5 sinc -12k 2>/dev/null
pacat --playback --rate=48000 --channels=2 --format=float32le --latency-msec=100 \
    --client-name=headless-test-noise <"$work/noise.raw" &
noise_pid=$!
sleep "$SETTLE"
if [[ -x $BIN/vellatone-syncmeter ]]; then
    "$BIN/vellatone-syncmeter" --seconds "$SECONDS_MEASURED" --windows 4 --limit-ms "$ALIGN_LIMIT_MS" \
        --expect living-kitchen=0 --expect living-den=100 --capture capture \
        living=living.monitor kitchen=kitchen.monitor den=den.monitor capture=vellatone.monitor ||
        fail "the speakers are not aligned within $ALIGN_LIMIT_MS ms, or fell silent longer than the capture"
else
    echo "vellatone-syncmeter is not built: alignment not measured" >&2
fi

step "stop gives the default sink and the player's stream back"
ctl stop || fail "stop"
[[ $(default_sink) == speakers ]] || fail "after stop the default sink is $(default_sink)"
speakers_id=$(pactl list short sinks | awk '$2 == "speakers" {print $1}')
noise_sink=$(pactl list short sink-inputs | awk 'NR == 1 {print $2}')
[[ $noise_sink == "$speakers_id" ]] || fail "the player's stream is on sink $noise_sink, not speakers"
kill "$noise_pid"; wait "$noise_pid" 2>/dev/null || true; noise_pid=

step "bad commands fail with one sentence"
if ctl volume 7 0.5 2>"$work/err"; then fail "volume on a missing slot succeeded"; fi
grep -q "There is no output in slot 7." "$work/err" || fail "$(cat "$work/err")"
if ctl volume 0 1.5 2>/dev/null; then fail "volume 1.5 succeeded"; fi
if ctl add uid:nowhere 2>/dev/null; then fail "adding an unknown output succeeded"; fi
if ctl send '{"nonsense":{}}' 2>/dev/null; then fail "a message that is not one was sent"; fi
ctl send '{"setMuted":{"slot":1,"muted":true}}' || fail "send"
[[ $(ctl status | field "s['rows'][1]['muted']") == True ]] || fail "send did not mute"
ctl mute 1 off || fail "mute off"

step "SIGTERM while running gives the default sink back"
ctl start || fail "start again"
terminate
[[ $(default_sink) == speakers ]] || fail "after SIGTERM the default sink is $(default_sink)"

step "the rows come back after a restart"
launch 2
[[ $(ctl status | field "[(r['name'], r['trimMs']) for r in s['rows']]") == \
    "[('Living', 0.0), ('Kitchen', 0.0), ('Den', 100.0)]" ]] || fail "rows after restart: $(ctl status)"

step "after SIGKILL the next launch gives the sink back and says so"
ctl start || fail "start before the kill"
kill -KILL "$app_pid"; wait "$app_pid" 2>/dev/null || true; app_pid=
[[ $(default_sink) == vellatone ]] || fail "the kill did not leave the capture sink as default"
launch 3
[[ $(default_sink) == speakers ]] || fail "the launch after a crash left the default sink on $(default_sink)"
for _ in $(seq 40); do grep -q "^notice crash: " "$work/app3.log" && break; sleep 0.05; done
grep -q "^notice crash: Your computer’s sound is back Vellatone quit unexpectedly" "$work/app3.log" ||
    fail "no crash notice"
terminate

step "a corrupted settings file is kept aside"
echo '{"outputCount": 3, "output0": ' >"$VELLATONE_CONFIG_DIR/settings.json"
launch 4
[[ $(ctl status | field "len(s['rows'])") == 0 ]] || fail "rows from a corrupted file"
[[ $(ls "$VELLATONE_CONFIG_DIR" | grep -vc '^settings.json$') -ge 1 ]] || fail "nothing kept aside"
terminate

step "with no sound server the app says so"
if PULSE_SERVER=unix:$work/nowhere "$BIN/vellatone" --headless 2>"$work/app5.log"; then
    fail "the app ran without a sound server"
fi
grep -q "no sound server is reachable" "$work/app5.log" || fail "$(cat "$work/app5.log")"
echo "PASS"
