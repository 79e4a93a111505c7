#!/usr/bin/env bash
# Runs the guest end-to-end test: a private PulseAudio with a speaker sink
# "living" and a sink "phone" for Chromium, the guest host, and the pages.
#   tests/guests/e2e/run-e2e.sh BIN_DIR
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
repo=$(cd "$here/../../.." && pwd)
bin=${1:-$repo/build/bin}

[[ -x $bin/vellatone-guest-host ]] || { echo "run-e2e: $bin/vellatone-guest-host is missing" >&2; exit 2; }
# 77: skipped, as ctest is told, on a machine without the browser or node.
for cmd in chromium node npm pulseaudio; do
    command -v "$cmd" >/dev/null || { echo "run-e2e: $cmd is not installed; skipped" >&2; exit 77; }
done
if [[ ! -d $here/node_modules/playwright-core ]]; then
    (cd "$here" && PLAYWRIGHT_SKIP_BROWSER_DOWNLOAD=1 npm ci --no-audit --no-fund >/dev/null)
fi

work=$(mktemp -d /tmp/vellatone-guest-e2e.XXXXXX)
cleanup() {
    "$repo/scripts/private-pulse.sh" stop "$work/pulse" >/dev/null 2>&1 || true
    rm -rf "$work"
}
trap cleanup EXIT
unset PULSE_SINK PULSE_SOURCE PULSE_SERVER
eval "$("$repo/scripts/private-pulse.sh" start "$work/pulse" living:48000:Living phone:48000:Phone)"
# Chromium plays to the server's default sink: the phone's own.
pactl set-default-sink phone
node --experimental-websocket --no-warnings "$here/guest-e2e.mjs" "$bin/vellatone-guest-host" "$repo/web/guest"
