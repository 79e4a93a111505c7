#!/usr/bin/env bash
# The track from a real media player to the outputs: a private sound server
# (VELLATONE_TEST_SERVER picks PulseAudio or PipeWire) with a speaker sink
# "living", a private session bus, mpv with mpv-mpris playing tagged FLAC
# files made here with a cover beside them, the real application headless,
# and a guest page in headless Chromium.
#   tests/nowplaying/run-nowplaying.sh BIN_DIR
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
repo=$(cd "$here/../.." && pwd)
bin=$(realpath "${1:-$repo/build/bin}")
e2e=$repo/tests/guests/e2e
mpris=/usr/lib/mpv-mpris/mpris.so

# 77: skipped on a developer's machine without the players; in CI nothing may
# be missing.
for cmd in mpv playerctl metaflac sox dbus-daemon chromium node npm; do
    if ! command -v "$cmd" >/dev/null || [[ ! -f $mpris ]]; then
        echo "run-nowplaying: $cmd or mpv-mpris is not installed (scripts/install-deps.sh installs it)" >&2
        [[ -n ${CI:-} ]] && exit 1
        exit 77
    fi
done
if [[ ! -d $e2e/node_modules/playwright-core ]]; then
    (cd "$e2e" && PLAYWRIGHT_SKIP_BROWSER_DOWNLOAD=1 npm ci --no-audit --no-fund >/dev/null)
fi

work=$(mktemp -d /tmp/vellatone-nowplaying.XXXXXX)
bus_pid=
cleanup() {
    [[ -n $bus_pid ]] && kill "$bus_pid" 2>/dev/null && wait "$bus_pid" 2>/dev/null
    "$repo/scripts/private-pulse.sh" stop "$work/pulse" >/dev/null 2>&1 || true
    rm -rf "$work"
}
trap cleanup EXIT
unset PULSE_SINK PULSE_SOURCE PULSE_SERVER
eval "$("$repo/scripts/private-pulse.sh" start "$work/pulse" living:48000:Living)"
echo "sound server: $("$repo/scripts/private-pulse.sh" which "$work/pulse")"

# A session bus that starts nothing on demand: the browser would otherwise
# have it start accessibility and keyring daemons.
cat > "$work/bus.conf" <<CONF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path=$work/bus</listen>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
CONF
dbus-daemon --config-file="$work/bus.conf" --nofork --nopidfile 2>"$work/bus.log" &
bus_pid=$!
export DBUS_SESSION_BUS_ADDRESS=unix:path=$work/bus
for _ in $(seq 100); do [[ -S $work/bus ]] && break; sleep 0.02; done

# Two tagged tracks of an album with its cover beside them (mpv-mpris offers a
# cover.png in the track's folder as a file:// URL), and a single without one.
mkdir -p "$work/album" "$work/single"
python3 - "$work/album/cover.png" <<'PY'
import struct, sys, zlib
w, h = 640, 480
rows = b"".join(b"\0" + b"".join(bytes((x * 255 // w, y * 255 // h, 128)) for x in range(w))
                for y in range(h))
chunk = lambda t, d: struct.pack(">I", len(d)) + t + d + struct.pack(">I", zlib.crc32(t + d))
open(sys.argv[1], "wb").write(b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", w, h, 8, 2, 0, 0, 0))
                              + chunk(b"IDAT", zlib.compress(rows)) + chunk(b"IEND", b""))
PY
track() {
    sox -n -r 48000 -c 2 -b 16 "$1" synth 60 sine "$2" vol 0.05
    metaflac --set-tag="TITLE=$3" --set-tag="ARTIST=$4" --set-tag="ALBUM=$5" "$1"
}
track "$work/album/one.flac" 440 "First Light" "The Testers" "Loopback"
track "$work/album/two.flac" 660 "Second Wind" "The Testers" "Loopback"
track "$work/single/beta.flac" 550 "Beta Song" "Someone Else" "Single"

node --experimental-websocket --no-warnings "$here/nowplaying-e2e.mjs" "$bin" "$work" "$mpris"
