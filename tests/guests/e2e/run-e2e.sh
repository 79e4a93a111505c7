#!/usr/bin/env bash
# Runs the guest end-to-end test: a private PulseAudio with a speaker sink
# "living" and a sink "phone" for Chromium, the real application headless,
# and the pages.
#   tests/guests/e2e/run-e2e.sh BIN_DIR
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
repo=$(cd "$here/../../.." && pwd)
bin=$(realpath "${1:-$repo/build/bin}")

for tool in vellatone vellatonectl; do
    [[ -x $bin/$tool ]] || { echo "run-e2e: $bin/$tool is missing" >&2; exit 2; }
done
# 77: skipped, as ctest is told, on a developer's machine without the browser
# or node. In CI (CI set) nothing may be missing: the test fails instead.
for cmd in chromium node npm pulseaudio; do
    if ! command -v "$cmd" >/dev/null; then
        echo "run-e2e: $cmd is not installed (scripts/install-deps.sh installs it)" >&2
        [[ -n ${CI:-} ]] && exit 1
        exit 77
    fi
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
mkdir -p "$work/home"
# The app takes the default sink once it plays; Chromium keeps to the phone's.
PULSE_SINK=phone node --experimental-websocket --no-warnings "$here/guest-e2e.mjs" "$bin" "$work"
