# Sourced by the shell tests that drive the real application: a work folder,
# a private sound server (scripts/private-pulse.sh, so PulseAudio or, with
# VELLATONE_TEST_SERVER=pipewire, PipeWire), the app's environment, and
# launching and ending the app. Before sourcing, set BIN (the built
# binaries) and REPO (the source tree); afterwards:
#
#   app_test_begin NAME name:rate:Description...   work folder, server, environment
#   app_test_on_exit  a function the test may define: runs first at exit
#   launch N          starts vellatone --headless, logging to $work/appN.log
#   await_app         waits for the app started as $app_pid to answer (for tests
#                     that start it their own way, e.g. inside a namespace)
#   await_outputs RE  waits up to 15 s for a line of `vellatonectl outputs` to
#                     match the Perl regex RE (discovery is asynchronous)
#   app_test_extra_logs  more log globs under $work that `fail` prints
#   terminate         SIGTERM; fails unless the app exits cleanly
#   ctl ...           vellatonectl;  field EXPR  reads `vellatonectl status` JSON (s)
#   fail MESSAGE      prints the message and every app log, exits 1
#   step TITLE        prints a heading
#
# $server is the server's name; $work is removed at exit unless KEEP_WORK is set.

app_pid=
work=
server=
app_test_extra_logs=

app_test_cleanup() {
    if declare -F app_test_on_exit >/dev/null; then app_test_on_exit || true; fi
    if [[ -n $app_pid ]]; then
        kill -TERM "$app_pid" 2>/dev/null || true
        wait "$app_pid" 2>/dev/null || true
    fi
    [[ -n $work ]] || return 0
    "$REPO/scripts/private-pulse.sh" stop "$work/pulse" >/dev/null 2>&1 || true
    if [[ -z ${KEEP_WORK:-} ]]; then rm -rf "$work"; else echo "kept $work" >&2; fi
}

fail() {
    echo "FAIL: $*" >&2
    local f
    for f in "$work"/app*.log; do [[ -f $f ]] && { echo "--- $f" >&2; cat "$f" >&2; }; done
    for f in $(cd "$work" && eval "echo $app_test_extra_logs"); do
        [[ -f $work/$f ]] && { echo "--- $work/$f" >&2; tail -40 "$work/$f" >&2; }
    done
    # Where everything played when it failed, if the server still answers.
    if timeout 5 pactl info >/dev/null 2>&1; then
        echo "--- default sink $(timeout 5 pactl get-default-sink)" >&2
        timeout 5 pactl list short sinks >&2 || true
        timeout 5 pactl list sink-inputs 2>&1 |
            grep -E "^Sink Input|^\s+Sink:|^\s+Corked|application.name|media.name|target" >&2 || true
    fi
    exit 1
}

step() { echo "== $*"; }

app_test_begin() {
    local name=$1
    shift
    work=$(mktemp -d "/tmp/$name.XXXXXX")
    trap app_test_cleanup EXIT
    unset PULSE_SINK PULSE_SOURCE PULSE_SERVER
    eval "$("$REPO/scripts/private-pulse.sh" start "$work/pulse" "$@")" || fail "no private sound server"
    server=$("$REPO/scripts/private-pulse.sh" which "$work/pulse")
    echo "sound server: $server"

    export VELLATONE_CONFIG_DIR=$work/config
    export VELLATONE_CONTROL_SOCKET=$work/control/control.sock
    export VELLATONE_GUEST_BIND=127.0.0.1
    export HOME=$work/home
    mkdir -p "$HOME"
}

ctl() { "$BIN/vellatonectl" "$@"; }
field() { python3 -c "import json,sys; s=json.load(sys.stdin); print($1)"; }

launch() {
    "$BIN/vellatone" --headless 2>"$work/app$1.log" &
    app_pid=$!
    await_app
}

await_app() {
    local _
    for _ in $(seq 100); do
        ctl status >/dev/null 2>&1 && return 0
        kill -0 "$app_pid" 2>/dev/null || fail "the app exited at launch"
        sleep 0.05
    done
    fail "the control socket did not answer"
}

await_outputs() {
    local _
    for _ in $(seq 150); do
        ctl outputs >"$work/outputs" 2>&1 || true
        grep -qP "$1" "$work/outputs" && return 0
        sleep 0.1
    done
    fail "outputs never matched $1: $(cat "$work/outputs")"
}

terminate() {
    kill -TERM "$app_pid"
    wait "$app_pid" || fail "the app did not exit cleanly on SIGTERM"
    app_pid=
}
