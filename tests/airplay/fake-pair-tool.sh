#!/bin/sh
# A stand-in for the AirPlay tool's --pair-setup mode in the pairing tests.
# Records its arguments and environment in $FAKE_TOOL_DIR ("args", "env")
# and each line it reads ("pins"). Prompts for the code; $FAKE_PAIR_CODE is
# the right one, which prints the credentials, and any other line gets the
# tool's wrong-code complaint and a new prompt. $FAKE_PAIR_ERR is printed on
# standard error at launch (printf %b); with $FAKE_PAIR_EXIT set it then ends
# at once with that status.
dir=$FAKE_TOOL_DIR
printf '%s\n' "$@" >"$dir/args"
env >"$dir/env"
[ -n "$FAKE_PAIR_ERR" ] && printf '%b' "$FAKE_PAIR_ERR" >&2
[ -n "$FAKE_PAIR_EXIT" ] && exit "$FAKE_PAIR_EXIT"
echo "Please enter the PIN shown on the receiver:"
while IFS= read -r pin; do
    echo "$pin" >>"$dir/pins"
    if [ "$pin" = "$FAKE_PAIR_CODE" ]; then
        echo "CREDENTIALS:  0123abcd "
        exit 0
    fi
    echo "[STATUS] error code=auth_failed http=0 detail=\"wrong PIN\"" >&2
    echo "[ERROR] wrong PIN" >&2
    echo "Please enter the PIN shown on the receiver:"
done
exit 1
