# SPDX-License-Identifier: Apache-2.0
# Guest part of the rewrite scenario: the upgrade runs while a second process waits for it
# to touch the target's flag (past the signature check) and then overwrites a partition's
# content in the firmware file (MEDDLE=rewrite), or cuts the file short right before that
# content (MEDDLE=truncate).
. /lib/rig.sh
. /rig/config
cp /rig/up.bin /tmp/

# While the upgrade runs: lets the tool run in slices of a few milliseconds, stopped in
# between, until the flag volume's UBI device appears (raw flash: the tool attaches it
# after its checks) or the flag goes BAD (UBI mode); then, with the tool still stopped,
# rewrites the file in place and lets it go on. Stepping the tool keeps the rewrite inside
# the upgrade however fast the tool or slow the machine.
past_checks()
{
    case $FLAG in
    ubi4:*) [ -e /sys/class/ubi/ubi4 ] ;;
    *) case $(flag_of "$FLAG") in BAD:*) return 0 ;; esac; return 1 ;;
    esac
}

rewriter()
{
    local pid=""
    while [ -z "$pid" ] && kill -0 "$1" 2>/dev/null; do pid=$(pidof vireo_firmware_upgrade); done
    [ -n "$pid" ] || return 0
    while kill -STOP "$pid" 2>/dev/null; do
        [ -e "/proc/$pid" ] && [ "$(cut -d' ' -f3 "/proc/$pid/stat")" != Z ] || return 0
        past_checks && break
        kill -CONT "$pid"
        usleep 3000
    done
    if [ "$MEDDLE" = truncate ]; then
        truncate -s "$EVIL_AT" /tmp/up.bin
    else
        dd if=/rig/evil.bin of=/tmp/up.bin bs=65536 seek="$EVIL_AT" oflag=seek_bytes \
            conv=notrunc status=none
    fi
    kill -CONT "$pid" 2>/dev/null
}

(run_tool upgrade $TOOL_ARGS; exit $TOOL_STATUS) &
tool=$!
rewriter $tool
wait $tool
TOOL_STATUS=$?
cmp -s /tmp/up.bin /rig/up.bin && not_ok "the file was not changed while the upgrade ran" ||
    ok "the file was changed ($MEDDLE) while the upgrade ran"
if [ "$MEDDLE" = truncate ]; then
    expect_value "-U of a file cut short" 255 "$TOOL_STATUS"
    grep -q "firmware file '/tmp/up.bin' was cut short while it was read." /rig/out/upgrade.log &&
        ok "the cut is traced" || not_ok "no trace of the file cut short"
fi

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
