#!/bin/sh
# A stand-in for the AirPlay tool in the sender's tests: prints the status
# lines the test gives, records what it was given, and follows the command
# pipe. $FAKE_TOOL_DIR receives "args" (one per line), "env", "commands" and
# "pcm" (standard input). $FAKE_TOOL_OUT and $FAKE_TOOL_ERR are printed at
# launch (printf %b), $FAKE_TOOL_ON_START on standard error at ACTION=START;
# $FAKE_TOOL_EXIT, if set, ends the tool at once with that status after
# printing.
# A pairing run is fake-pair-tool.sh's.
[ "$1" = --pair-setup ] && exec "$(dirname "$0")/fake-pair-tool.sh" "$@"
# As the PTP daemon it only lives until SIGTERM, or ends at once with
# $FAKE_PTP_EXIT as a daemon without the privilege for its ports does.
case " $* " in *" --ptp-daemon "*)
    [ -n "$FAKE_PTP_EXIT" ] && exit "$FAKE_PTP_EXIT"
    trap 'exit 0' TERM
    while :; do sleep 0.05; done ;;
esac
dir=$FAKE_TOOL_DIR
printf '%s\n' "$@" >"$dir/args"
env >"$dir/env"
cmdpipe=
prev=
for a in "$@"; do
    [ "$prev" = --cmdpipe ] && cmdpipe=$a
    prev=$a
done
# Through another descriptor: a background command's own standard input
# would be /dev/null.
exec 4<&0
cat <&4 >"$dir/pcm" 2>/dev/null &
exec 4<&-
[ -n "$FAKE_TOOL_OUT" ] && printf '%b' "$FAKE_TOOL_OUT"
[ -n "$FAKE_TOOL_ERR" ] && printf '%b' "$FAKE_TOOL_ERR" >&2
[ -n "$FAKE_TOOL_EXIT" ] && exit "$FAKE_TOOL_EXIT"
exec 3<"$cmdpipe"
while IFS= read -r line <&3; do
    echo "$line" >>"$dir/commands"
    case "$line" in
    ACTION=STOP) exit 0 ;;
    ACTION=START) [ -n "$FAKE_TOOL_ON_START" ] && printf '%b' "$FAKE_TOOL_ON_START" >&2 ;;
    esac
done
