# Sourced by tests and measuring scripts: a room with a microphone on the
# private sound server. Needs BIN (vellatone-room, vellatone-syncmeter),
# $work and the server's environment (PULSE_SERVER, XDG_RUNTIME_DIR); $server
# is pulseaudio or pipewire.
#
#   room_begin SPEAKER=MS[@GAIN][,MS[@GAIN]]...
#       the source "roommic" as the default source, hearing each named
#       speaker sink through its paths (a delay after the sound went into the
#       sink, and a gain) and a hiss. On PulseAudio vellatone-room plays that
#       into the sink "room", whose monitor is remapped into "roommic" (a
#       source of its own, not a monitor); on PipeWire a filter-chain in the
#       server's graph is the source (see room_filter_start).
#   room_paths SPEAKER=...     new paths, in force when it returns
#   room_truth SPEAKER...      once the room has settled, has it play a
#                              different noise into each speaker sink, and
#                              records their monitors and the microphone at
#                              once; sets ROOM_ARRIVAL[SPEAKER] to when the
#                              microphone first hears it, in ms after it
#                              played into the sink
#   room_mic_off, room_mic_on  the microphone taken away (the default source is
#                              then a monitor) and given back
#   room_end                   stops the room (also at exit, through room_cleanup)
#
# The arrivals are measured, never read back from the paths: the room's
# delays are what the test checks the program against, so they come from the
# sound as it was recorded.

declare -A ROOM_ARRIVAL=()
ROOM_SPEAKERS=()
ROOM_PATHS=()
room_pid=
room_ctl_fd=
room_filter_pid=
# Seconds of sound recorded for the arrivals; the correlation of that much
# noise stands a hundred times and more above its floor.
ROOM_TRUTH_SECONDS=${ROOM_TRUTH_SECONDS:-3}

room_begin() {
    ROOM_SPEAKERS=()
    local word
    for word in "$@"; do ROOM_SPEAKERS+=("${word%%=*}"); done
    if [[ $server == pipewire ]]; then
        # The room is a filter-chain in the server's own graph: every path a
        # delay of whole samples, all in one graph cycle, where a client's
        # timing on pipewire-pulse scatters by a millisecond and more. Its
        # output is a source of its own. vellatone-room still keeps the
        # speakers' noise for room_truth, and plays the hiss into a sink the
        # filter mixes in.
        pactl load-module module-null-sink sink_name=roomhiss rate=48000 channels=2 \
            "sink_properties=device.description=Hiss" >/dev/null || return 1
        # The graph's driver reaches every node a cycle before its own
        # monitor does: were a speaker the driver, the room would hear that
        # speaker a quantum late, and only while it drove. A sink nobody
        # plays to, linked into the room, drives the graph for the room's
        # whole life instead, the same while the room is measured and while
        # it is used.
        pactl load-module module-null-sink sink_name=room_meter_clock rate=48000 channels=2 \
            sink_properties=priority.driver=30000 >/dev/null || return 1
        room_start_tool roomhiss "${ROOM_SPEAKERS[@]/%/=}" || return 1
        room_filter_start "$@" || return 1
    else
        pactl load-module module-null-sink sink_name=room rate=48000 channels=2 \
            "sink_properties=device.description=Room" >/dev/null || return 1
        room_mic_on || return 1
        room_start_tool room "$@" || return 1
    fi
}

room_start_tool() {
    local out=$1
    shift
    rm -f "$work/room.ctl"
    mkfifo "$work/room.ctl"
    "$BIN/vellatone-room" --out "$out" "$@" <"$work/room.ctl" >"$work/room.out" 2>"$work/room.err" &
    room_pid=$!
    exec {room_ctl_fd}>"$work/room.ctl"
    await_room_line ready || { cat "$work/room.err" >&2; return 1; }
}

# The microphone taken away (the default source falls back to a monitor) and
# given back.
room_mic_off() {
    if [[ $server == pipewire ]]; then
        room_filter_stop
    else
        pactl unload-module "$(cat "$work/roommic.module")"
    fi
}

room_mic_on() {
    if [[ $server == pipewire ]]; then
        room_filter_start "${ROOM_PATHS[@]}"
    else
        pactl load-module module-remap-source master=room.monitor source_name=roommic \
            "source_properties=device.description=Microphone" >"$work/roommic.module" &&
            pactl set-default-source roommic
    fi
}

# PipeWire: the filter-chain for these paths, its inputs linked to the
# speakers' monitors and the hiss, its source the default one.
room_filter_start() {
    ROOM_PATHS=("$@")
    local nodes= links= gains= word name list item ms gain k=0 p=0 inputs=
    for name in "${ROOM_SPEAKERS[@]}"; do
        nodes+="{ type = builtin name = c$k label = copy }"$'\n'
        inputs+="\"c$k:In\" "
        k=$((k + 1))
    done
    for word in "$@"; do
        name=${word%%=*}
        list=${word#*=}
        for ((k = 0; k < ${#ROOM_SPEAKERS[@]}; k++)); do [[ ${ROOM_SPEAKERS[k]} == "$name" ]] && break; done
        local IFS=,
        for item in $list; do
            ms=${item%%@*}
            gain=1
            [[ $item == *@* ]] && gain=${item#*@}
            p=$((p + 1))
            nodes+="{ type = builtin name = d$p label = delay config = { \"max-delay\" = 2.0 } control = { \"Delay (s)\" = $(awk -v m="$ms" 'BEGIN { print m / 1000 }') } }"$'\n'
            links+="{ output = \"c$k:Out\" input = \"d$p:In\" } { output = \"d$p:Out\" input = \"mix:In $p\" }"$'\n'
            gains+="\"Gain $p\" = $gain "
        done
        unset IFS
    done
    # The hiss, and the sink that drives the graph: linked in (at no gain)
    # so that it drives the room's whole graph, speakers and all, whatever
    # else is linked to them.
    p=$((p + 2))
    (( p <= 8 )) || { echo "the room's mixer takes at most 6 paths" >&2; return 1; }
    gains+="\"Gain $((p - 1))\" = 1.0 \"Gain $p\" = 0.0"
    inputs+="\"mix:In $((p - 1))\" \"mix:In $p\""
    local n=$((${#ROOM_SPEAKERS[@]} + 2)) positions=
    for ((k = 0; k < n; k++)); do positions+="AUX$k "; done
    cat >"$work/room-filter.conf" <<CONF
context.spa-libs = {
    audio.convert.* = audioconvert/libspa-audioconvert
    support.*       = support/libspa-support
}
context.modules = [
    { name = libpipewire-module-rt args = {} flags = [ ifexists nofail ] }
    { name = libpipewire-module-protocol-native }
    { name = libpipewire-module-client-node }
    { name = libpipewire-module-adapter }
    { name = libpipewire-module-filter-chain
        args = {
            node.description = "Room"
            media.name = "Room"
            filter.graph = {
                nodes = [
$nodes                    { type = builtin name = mix label = mixer control = { $gains } }
                ]
                links = [
$links                ]
                inputs = [ $inputs ]
                outputs = [ "mix:Out" ]
            }
            capture.props = {
                node.name = "room_in"
                audio.channels = $n
                audio.position = [ $positions]
                node.autoconnect = false
                stream.dont-remix = true
                node.passive = true
            }
            playback.props = {
                node.name = "roommic"
                node.description = "Microphone"
                media.class = "Audio/Source"
                audio.channels = 1
                audio.position = [ MONO ]
            }
        }
    }
]
CONF
    pipewire -c "$work/room-filter.conf" >"$work/room-filter.log" 2>&1 &
    room_filter_pid=$!
    local _
    for _ in $(seq 100); do
        pw-link -i 2>/dev/null | grep -q "^room_in:input_AUX$((n - 1))\$" &&
            pw-link -o 2>/dev/null | grep -q '^roommic:capture_MONO$' && break
        sleep 0.05
    done
    k=0
    for name in "${ROOM_SPEAKERS[@]}"; do
        pw-link "$name:monitor_FL" "room_in:input_AUX$k" || return 1
        k=$((k + 1))
    done
    pw-link roomhiss:monitor_FL "room_in:input_AUX$k" || return 1
    pw-link room_meter_clock:monitor_FL "room_in:input_AUX$((k + 1))" || return 1
    pactl set-default-source roommic
}

room_filter_stop() {
    [[ -n ${room_filter_pid:-} ]] || return 0
    kill "$room_filter_pid" 2>/dev/null || true
    wait "$room_filter_pid" 2>/dev/null || true
    room_filter_pid=
}

room_paths() {
    if [[ $server == pipewire ]]; then
        room_filter_stop
        room_filter_start "$@"
        return
    fi
    local count
    count=$(grep -c '^paths$' "$work/room.out")
    echo "$*" >&"$room_ctl_fd"
    await_room_line paths $((count + 1))
}

room_end() {
    room_filter_stop
    if [[ -n $room_ctl_fd ]]; then exec {room_ctl_fd}>&-; room_ctl_fd=; fi
    if [[ -n $room_pid ]]; then
        kill "$room_pid" 2>/dev/null || true
        wait "$room_pid" 2>/dev/null || true
        room_pid=
    fi
}

room_say() {
    local word=$1 count
    count=$(grep -c "^$word\$" "$work/room.out")
    echo "$word" >&"$room_ctl_fd"
    await_room_line "$word" $((count + 1))
}

# Waits (up to 10 s) until the room has printed WORD at least N times.
await_room_line() {
    local _
    for _ in $(seq 500); do
        [[ $(grep -c "^$1\$" "$work/room.out") -ge ${2:-1} ]] && return 0
        kill -0 "$room_pid" 2>/dev/null || break
        sleep 0.02
    done
    echo "the room never said $1" >&2
    return 1
}

# Records the monitors of the named sinks and, for the name "mic", the
# microphone, for ROOM_TRUTH_SECONDS, all from one process, and runs the
# syncmeter on them with the given checks; its report goes to $work/NAME.out.
# A recording with a gap in it (the server stalled while it was made, and the
# recordings no longer line up by a cycle or more), or one the syncmeter
# could not read, is made again, three times at most.
#   room_measure NAME CHECK... -- SINK...
room_measure() {
    local attempt
    for attempt in 1 2 3; do
        room_record_once "$@" && grep -q '^dropouts: none' "$work/$1.out" && return 0
        cp "$work/$1.out" "$work/$1.$attempt.gaps"
    done
    return 1
}

room_record_once() {
    local out=$1 checks=() sinks=() s k status=0
    shift
    while [[ $# -gt 0 && $1 != -- ]]; do checks+=("$1"); shift; done
    shift
    sinks=("$@")
    local names=()
    if [[ $server == pipewire ]]; then
        # One capture node linked to every monitor and to the microphone:
        # all recorded in the same graph cycle, driven by room_meter_clock
        # (see room_begin), so that no recorded sink is the driver, whose
        # monitor would come a cycle late.
        local n=$((${#sinks[@]} + 1)) map=()
        for ((k = 0; k < n; k++)); do map+=("AUX$k"); done
        pw-record --target 0 --rate 48000 --channels "$n" --channel-map "$(IFS=,; echo "${map[*]}")" \
            --format f32 -P '{ node.name = "vellatone-room-meter" }' - >"$work/$out.raw" \
            2>"$work/$out.record.err" &
        local rec=$!
        for _ in $(seq 100); do
            pw-link -i 2>/dev/null | grep -q "^vellatone-room-meter:input_AUX$((n - 1))\$" && break
            sleep 0.05
        done
        k=0
        for s in "${sinks[@]}" room_meter_clock; do
            local port=$s:monitor_FL
            [[ $s == mic ]] && port=roommic:capture_MONO
            pw-link "$port" "vellatone-room-meter:input_AUX$k" || status=1
            [[ $s == room_meter_clock ]] || names+=("$s=$port")
            k=$((k + 1))
        done
        local began
        began=$(date +%s.%N)
        sleep $((ROOM_TRUTH_SECONDS + 1))
        kill "$rec"
        wait "$rec" 2>/dev/null || true
        local skip
        skip=$(awk -v now="$(date +%s.%N)" -v then="$began" -v s="$ROOM_TRUTH_SECONDS" \
            'BEGIN { print now - then - s }')
        "$BIN/vellatone-syncmeter" --raw "$work/$out.raw" --rate 48000 --channels "$n" \
            --skip "$skip" --windows 4 "${checks[@]}" "${names[@]}" >"$work/$out.out" \
            2>"$work/$out.err" || status=1
        rm -f "$work/$out.raw"
    else
        # The microphone is the room sink's monitor remapped, sample for
        # sample; the remapped source reports its timing without the sink's
        # latency, a sawtooth of several ms that smears a recording placed
        # by it. The monitor's own timing is exact, and what differs between
        # the two is the same for every speaker.
        for s in "${sinks[@]}"; do
            if [[ $s == mic ]]; then names+=(mic=room.monitor); else names+=("$s=$s.monitor"); fi
        done
        "$BIN/vellatone-syncmeter" --seconds "$ROOM_TRUTH_SECONDS" --windows 4 "${checks[@]}" \
            "${names[@]}" >"$work/$out.out" 2>"$work/$out.err" || status=1
    fi
    return $status
}

# A recording whose weakest arrival stands less than this far above the
# median of its correlation was smeared (a stall of the machine moved a
# stream's time line while it was recorded) and is taken again.
ROOM_TRUTH_MIN_STRENGTH=40

room_truth() {
    local speakers=("$@") s checks=() attempt
    await_room_line settled || return 1
    # The room plays a different noise into each speaker sink itself: no
    # stream starts or stops in a speaker sink while it is measured.
    room_say noise || return 1
    for s in "${speakers[@]}"; do checks+=(--arrival "$s->mic"); done
    local measured=
    for attempt in 1 2 3; do
        room_measure room-truth "${checks[@]}" -- "${speakers[@]}" mic || continue
        awk -v min=$ROOM_TRUTH_MIN_STRENGTH '/^arrival / { n++; if ($(NF-3) + 0 >= min) good++ }
            END { exit !(n > 0 && good == n) }' "$work/room-truth.out" && { measured=1; break; }
        cp "$work/room-truth.out" "$work/room-truth.$attempt.smeared"
    done
    room_say quiet || return 1
    [[ -n $measured ]] || return 1
    for s in "${speakers[@]}"; do
        ROOM_ARRIVAL[$s]=$(sed -n "s/^arrival $s->mic: \([-0-9.]*\) ms.*/\1/p" "$work/room-truth.out")
        [[ -n ${ROOM_ARRIVAL[$s]} ]] || return 1
    done
}
