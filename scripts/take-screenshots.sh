#!/usr/bin/env bash
# Takes the README's screenshots: runs the window test's flow (the real
# application under Xvfb with a private PulseAudio and two virtual speakers)
# and copies its pictures into docs/screenshots/.
#
#   scripts/take-screenshots.sh [BUILD_DIR]     (default: build)
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build}
if [ -z "${VELLATONE_NO_BUILD:-}" ]; then
    scripts/build.sh "$dir" >/dev/null
fi
shots=$(mktemp -d /tmp/vellatone-shots.XXXXXX)
trap 'rm -rf "$shots"' EXIT
xvfb-run -a -s "-screen 0 1280x900x24" python3 tests/ui/window_flow.py "$dir/bin" . "$shots"
mkdir -p docs/screenshots
for f in window-playing window-apps equaliser-sheet invitation-sheet window-dark calibration-sheet; do
    if [ -f "$shots/$f.png" ]; then
        cp "$shots/$f.png" "docs/screenshots/$f.png"
        echo "take-screenshots.sh: docs/screenshots/$f.png"
    fi
done
