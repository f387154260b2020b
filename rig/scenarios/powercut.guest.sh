# SPDX-License-Identifier: Apache-2.0
# Guest part of the power-cut scenarios: PHASE=upgrade runs the upgrade between the two
# console marks the host times and cuts; PHASE=verify classifies what the flash holds.
. /lib/rig.sh
. /rig/config

if [ "$PHASE" = upgrade ]; then
    cp /rig/up.bin /tmp/
    # Let UBI finish formatting free erase blocks after the attach, so that the host's first
    # sight of a changed flash file is the upgrade's own first write.
    sync
    sleep 1
    echo "RIG-MARK start" >/dev/console
    run_tool upgrade $TOOL_ARGS
    echo "RIG-MARK end" >/dev/console
    expect_value "uncut upgrade" 0 "$TOOL_STATUS"
    rig_done
fi

case $FLAG in ubi4:*) attach_flag_device ;; esac
other=$(items_state /rig/factory $OTHER)
flag=$(flag_of "$FLAG")
contents=mixed
[ "$(items_state /rig/factory $TARGET)" = same ] && contents=old
[ "$(items_state /rig/upgraded $TARGET)" = same ] && contents=new
if [ "$contents" = new ] && [ "$flag" = "$DONE_FLAG" ]; then
    [ "$(items_state /rig/upgraded $FLAG)" = same ] || contents="new, flag record differs"
fi

detail="(flag $flag, target $contents)"
if [ "$other" != same ]; then
    state="VIOLATION: the running image changed $detail"
else
    case $flag in
    "$DONE_FLAG") [ "$contents" = new ] && state="installed $detail" ||
        state="VIOLATION: GOOD over an unfinished target $detail" ;;
    "$FACTORY_FLAG") [ "$contents" = old ] && state="untouched $detail" ||
        state="VIOLATION: the target's old GOOD flag over changed contents $detail" ;;
    BAD:* | unreadable | none:*) state="off $detail" ;;
    *) state="VIOLATION: unexpected flag $detail" ;;
    esac
fi
echo "$state" >/rig/out/state
case $state in VIOLATION*) not_ok "$state" ;; *) ok "$state" ;; esac
rig_done
