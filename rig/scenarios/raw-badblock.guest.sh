# SPDX-License-Identifier: Apache-2.0
# Guest part of the raw-badblock scenario.
. /lib/rig.sh
cp /rig/up.bin /tmp/

n=$(mtd_index kernel)
base=$(cat /sys/class/mtd/mtd$n/offset) size=$(cat /sys/class/mtd/mtd$n/size)
expect_value "erase block 11 is bad" 1 "$(cat /sys/class/mtd/mtd0/bad_blocks)"
bad=$((11 * 131072))
[ $bad -ge "$base" ] && [ $bad -lt $((base + size)) ] && ok "erase block 11 lies in \"kernel\"" ||
    not_ok "erase block 11 lies outside \"kernel\" ($base, $size)"
run_tool upgrade -U -u /tmp/up.bin
expect_value "-U fails" 255 "$TOOL_STATUS"
if grep -q 'PTN\[kernel\] update content failed, pos={' /rig/out/upgrade.log; then
    ok "the kernel's write is reported failed"
else
    not_ok "no failure trace of the kernel's write"
fi
expect_value "extra-para is flagged off" BAD:1 "$(flag_of mtd:extra-para)"
rig_done
