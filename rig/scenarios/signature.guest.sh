# SPDX-License-Identifier: Apache-2.0
# Guest part of the signature scenario (MODE=default: raw flash, MODE=ubi: UBI volumes).
. /lib/rig.sh
. /rig/config
cp /rig/good.bin /rig/bad.bin /tmp/
dd if=/dev/mtd0 of=/tmp/before.img bs=65536 status=none

run_tool good -t /tmp/good.bin
expect_value "-t accepts the signed file" 0 "$TOOL_STATUS"
run_tool bad -t /tmp/bad.bin
expect_value "-t refuses the tampered file" 255 "$TOOL_STATUS"
run_tool bad -C -w "$MODE" -u /tmp/bad.bin
expect_value "-C -w $MODE refuses the tampered file" 255 "$TOOL_STATUS"
run_tool bad -U -w "$MODE" -u /tmp/bad.bin
expect_value "-U -w $MODE refuses the tampered file" 255 "$TOOL_STATUS"
expect_same "the tampered file is left as it was" /tmp/bad.bin /rig/bad.bin

if [ "$MODE" = ubi ]; then
    # UBI may write its own headers into free erase blocks at any time; the volumes are
    # what the tool could have changed.
    expect_volumes "after the refusals" 0 /rig/factory
else
    expect_same "no flash byte changed" /dev/mtd0 /tmp/before.img
fi
rig_done
