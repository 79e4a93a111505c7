# Sourced by tests and measuring scripts: a room with a microphone on the
# private sound server. Needs BIN (vellatone-room, vellatone-syncmeter),
# $work and the server's environment (PULSE_SERVER, XDG_RUNTIME_DIR); $server
# is pulseaudio or pipewire.
#
#   room_begin SPEAKER=MS[@GAIN][,MS[@GAIN]]...
#       the sink "room" and the source "roommic" (its monitor remapped, so it
#       is a source of its own and not a monitor) as the default source, and
#       vellatone-room playing into it what a microphone would hear of each
#       named speaker sink (see tools/room/room_main.cpp)
#   room_paths SPEAKER=...     new paths, in force when it returns
#   room_truth SPEAKER...      plays a different noise into each named speaker
#                              sink and records their monitors and the
#                              microphone at once; sets ROOM_ARRIVAL[SPEAKER]
#                              to when the microphone first hears it, in ms
#                              after it played into the sink
#   room_mic_module            the module index of "roommic" (to unload it)
#   room_end                   stops the room (also at exit, through room_cleanup)
#
# The arrivals are measured, never read back from the paths: the room's
# delays are what the test checks the program against, so they come from the
# sound as it was recorded.

declare -A ROOM_ARRIVAL=()
room_pid=
room_ctl_fd=
room_changes=0

room_begin() {
    pactl load-module module-null-sink sink_name=room rate=48000 channels=2 \
        "sink_properties=device.description=Room" >/dev/null || return 1
    pactl load-module module-remap-source master=room.monitor source_name=roommic \
        "source_properties=device.description=Microphone" >"$work/roommic.module" || return 1
    pactl set-default-source roommic || return 1
    rm -f "$work/room.ctl"
    mkfifo "$work/room.ctl"
    "$BIN/vellatone-room" --out room "$@" <"$work/room.ctl" >"$work/room.out" 2>"$work/room.err" &
    room_pid=$!
    exec {room_ctl_fd}>"$work/room.ctl"
    local _
    for _ in $(seq 100); do
        grep -q '^ready$' "$work/room.out" 2>/dev/null && return 0
        kill -0 "$room_pid" 2>/dev/null || break
        sleep 0.05
    done
    cat "$work/room.err" >&2
    return 1
}

room_mic_module() { cat "$work/roommic.module"; }

room_paths() {
    room_changes=$((room_changes + 1))
    echo "$*" >&"$room_ctl_fd"
    local _
    for _ in $(seq 100); do
        [[ $(grep -c '^paths$' "$work/room.out") -ge $room_changes ]] && return 0
        sleep 0.02
    done
    return 1
}

room_end() {
    if [[ -n $room_ctl_fd ]]; then exec {room_ctl_fd}>&-; room_ctl_fd=; fi
    if [[ -n $room_pid ]]; then
        kill "$room_pid" 2>/dev/null || true
        wait "$room_pid" 2>/dev/null || true
        room_pid=
    fi
}

# Seconds of sound recorded for the arrivals; the correlation of that much
# noise stands hundreds of times above its floor.
ROOM_TRUTH_SECONDS=${ROOM_TRUTH_SECONDS:-3}

room_truth() {
    local speakers=("$@") pids=() s k=0 status=0
    for s in "${speakers[@]}"; do
        # A different stretch of noise for each speaker, so that the
        # microphone's recording correlates with each only where it hears it.
        [[ -f $work/room-noise.raw ]] ||
            sox -n -r 48000 -c 2 -b 32 -e floating-point -t raw "$work/room-noise.raw" \
                synth 30 whitenoise vol 0.3 sinc -12k 2>/dev/null
        tail -c +$((k * 8 * 48000 * 8 + 1)) "$work/room-noise.raw" |
            pacat --playback -d "$s" --rate=48000 --channels=2 --format=float32le \
                --latency-msec=40 --client-name=room-truth 2>/dev/null &
        pids+=($!)
        k=$((k + 1))
    done
    local names=() checks=()
    for s in "${speakers[@]}"; do checks+=(--arrival "$s->mic"); done
    if [[ $server == pipewire ]]; then
        # One capture node linked to every monitor and to the microphone:
        # all recorded in the same graph cycle. A sink nobody plays to drives
        # the graph, so that no recorded sink is the driver, whose monitor
        # would come a cycle late.
        pactl load-module module-null-sink sink_name=room_meter_clock rate=48000 channels=2 \
            sink_properties=priority.driver=30000 >"$work/room-clock.module"
        local n=$((${#speakers[@]} + 2)) map=()
        for ((k = 0; k < n; k++)); do map+=("AUX$k"); done
        pw-record --target 0 --rate 48000 --channels "$n" --channel-map "$(IFS=,; echo "${map[*]}")" \
            --format f32 -P '{ node.name = "vellatone-room-meter" }' - >"$work/room-truth.raw" \
            2>"$work/room-record.err" &
        local rec=$!
        for _ in $(seq 100); do
            pw-link -i 2>/dev/null | grep -q "^vellatone-room-meter:input_AUX$((n - 1))\$" && break
            sleep 0.05
        done
        k=0
        for s in "${speakers[@]}"; do
            pw-link "$s:monitor_FL" "vellatone-room-meter:input_AUX$k" || status=1
            names+=("$s=$s:monitor_FL")
            k=$((k + 1))
        done
        pw-link roommic:capture_FL "vellatone-room-meter:input_AUX$k" || status=1
        pw-link room_meter_clock:monitor_FL "vellatone-room-meter:input_AUX$((k + 1))" || status=1
        names+=(mic=roommic:capture_FL)
        local began
        began=$(date +%s.%N)
        sleep $((ROOM_TRUTH_SECONDS + 1))
        kill "$rec"
        wait "$rec" 2>/dev/null || true
        pactl unload-module "$(cat "$work/room-clock.module")" || true
        local skip
        skip=$(awk -v now="$(date +%s.%N)" -v then="$began" -v s="$ROOM_TRUTH_SECONDS" \
            'BEGIN { print now - then - s }')
        "$BIN/vellatone-syncmeter" --raw "$work/room-truth.raw" --rate 48000 --channels "$n" \
            --skip "$skip" "${checks[@]}" "${names[@]}" >"$work/room-truth.out" \
            2>"$work/room-truth.err" || status=1
    else
        sleep 0.5
        for s in "${speakers[@]}"; do names+=("$s=$s.monitor"); done
        [[ -n ${ROOM_TRUTH_EXTRA:-} ]] && checks+=(--arrival "living->roommon") && names+=(roommon=room.monitor)
        "$BIN/vellatone-syncmeter" --seconds "$ROOM_TRUTH_SECONDS" "${checks[@]}" "${names[@]}" \
            mic=roommic >"$work/room-truth.out" 2>"$work/room-truth.err" || status=1
    fi
    kill "${pids[@]}" 2>/dev/null || true
    wait "${pids[@]}" 2>/dev/null || true
    for s in "${speakers[@]}"; do
        ROOM_ARRIVAL[$s]=$(sed -n "s/^arrival $s->mic: \([-0-9.]*\) ms.*/\1/p" "$work/room-truth.out")
        [[ -n ${ROOM_ARRIVAL[$s]} ]] || status=1
    done
    return $status
}
