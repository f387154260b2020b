# Guest part of the rewrite scenario: the upgrade runs while a second process waits for it
# to touch the target's flag (past the signature check) and then overwrites a partition's
# content in the firmware file.
. /lib/rig.sh
. /rig/config
cp /rig/up.bin /tmp/

# While the upgrade (PID $1) runs: waits for the flag volume's UBI device (raw flash: the
# tool attaches it after its checks) or for the flag to go BAD (UBI mode), then rewrites the
# file in place.
rewriter()
{
    while kill -0 "$1" 2>/dev/null; do
        case $FLAG in
        ubi4:*) [ -e /sys/class/ubi/ubi4 ] && break ;;
        *) case $(flag_of "$FLAG") in BAD:*) break ;; esac ;;
        esac
    done
    kill -0 "$1" 2>/dev/null || return 0
    dd if=/rig/evil.bin of=/tmp/up.bin bs=65536 seek="$EVIL_AT" oflag=seek_bytes conv=notrunc \
        status=none
}

(run_tool upgrade $TOOL_ARGS; exit $TOOL_STATUS) &
tool=$!
rewriter $tool
wait $tool
TOOL_STATUS=$?
cmp -s /tmp/up.bin /rig/up.bin && not_ok "the file was not rewritten while the upgrade ran" ||
    ok "the file was rewritten while the upgrade ran"

case $FLAG in ubi4:*) attach_flag_device ;; esac
flag=$(flag_of "$FLAG")
echo "-U ended with status $TOOL_STATUS, target flag $flag"
if [ "$flag" = "$FACTORY_FLAG" ]; then
    expect_value "target untouched under its old GOOD flag" same "$(items_state /rig/factory $TARGET)"
elif [ "${flag%:*}" = GOOD ]; then
    for item in $TARGET; do
        expect_same "GOOD flag over the signed ${item#*:}" "$(item_dev "$item")" \
            "/rig/upgraded/${item#*:}"
    done
else
    ok "target flagged off ($flag) after the rewrite"
fi
rig_done
