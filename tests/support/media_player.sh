# Sourced by the shell tests that need a real media player whose track the app
# reads: a session bus of the test's own (the app finds the player there
# through MPRIS) and mpv with mpv-mpris playing a tagged FLAC with a cover
# beside it. Needs $work; afterwards:
#
#   media_player_ready          true when mpv, mpv-mpris and metaflac are there
#   media_player_bus            starts the bus and exports DBUS_SESSION_BUS_ADDRESS
#                               (before the app is launched)
#   media_player_play TITLE ARTIST ALBUM
#                               plays a quiet tone so tagged; its pid in media_player_pid
#   media_player_stop           ends the player and the bus

media_player_mpris=/usr/lib/mpv-mpris/mpris.so
media_player_pid=
media_player_bus_pid=

media_player_ready() {
    command -v mpv >/dev/null && command -v metaflac >/dev/null && [[ -f $media_player_mpris ]]
}

media_player_bus() {
    printf '%s\n' '<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"' \
        ' "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">' \
        "<busconfig><type>session</type><listen>unix:path=$work/session-bus</listen>" \
        '<policy context="default"><allow send_destination="*"/><allow receive_sender="*"/><allow own="*"/></policy></busconfig>' \
        >"$work/session-bus.conf"
    dbus-daemon --config-file="$work/session-bus.conf" --nofork --nopidfile 2>/dev/null &
    media_player_bus_pid=$!
    export DBUS_SESSION_BUS_ADDRESS=unix:path=$work/session-bus
    local _
    for _ in $(seq 100); do [[ -S $work/session-bus ]] && return 0; sleep 0.02; done
    return 1
}

media_player_play() {
    mkdir -p "$work/album"
    sox -n -r 44100 -c 2 -b 16 "$work/album/song.flac" synth 120 sine 300 vol 0.02 2>/dev/null
    metaflac --set-tag="TITLE=$1" --set-tag="ARTIST=$2" --set-tag="ALBUM=$3" "$work/album/song.flac"
    # mpv-mpris hands out a cover only as cover.png beside the track.
    python3 - "$work/album/cover.png" <<'PY'
import struct, sys, zlib
chunk = lambda t, d: struct.pack(">I", len(d)) + t + d + struct.pack(">I", zlib.crc32(t + d))
rows = (b"\0" + b"\x40\x80\xc0" * 64) * 64
open(sys.argv[1], "wb").write(b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", 64, 64, 8, 2, 0, 0, 0))
                              + chunk(b"IDAT", zlib.compress(rows)) + chunk(b"IEND", b""))
PY
    mpv --no-config --no-video --no-terminal --ao=pulse --script="$media_player_mpris" \
        "$work/album/song.flac" </dev/null >/dev/null 2>&1 &
    media_player_pid=$!
}

media_player_stop() {
    local p
    for p in $media_player_pid $media_player_bus_pid; do
        kill "$p" 2>/dev/null
        wait "$p" 2>/dev/null || true
    done
    media_player_pid= media_player_bus_pid=
}
