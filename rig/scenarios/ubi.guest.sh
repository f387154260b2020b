# SPDX-License-Identifier: Apache-2.0
# Guest part of the ubi and ubi-badblocks scenarios.
. /lib/rig.sh
. /rig/config
cp /rig/*.bin /tmp/

if [ -n "$NAND_BADBLOCKS" ]; then
    expect_value "bad erase blocks UBI found" 2 "$(cat /sys/class/ubi/ubi0/bad_peb_count)"
fi

expect_volumes "factory" 0 /rig/factory

run_tool check -C -w ubi -p 0 -u /tmp/up.bin
expect_value "-C accepts the VR500 image" 0 "$TOOL_STATUS"
run_tool check -C -w ubi -u /tmp/other.bin
expect_value "-C refuses a VR100 file" 255 "$TOOL_STATUS"
run_tool check -C -w ubi -u /tmp/old.bin
expect_value "-C refuses 1.2.9" 255 "$TOOL_STATUS"
run_tool check -C -w ubi -u /tmp/same.bin
expect_value "-C accepts the installed version" 0 "$TOOL_STATUS"
expect_volumes "after -C" 0 /rig/factory

run_tool upgrade -U -w ubi -p 0 -u /tmp/up.bin
expect_value "-U installs the VR500 image" 0 "$TOOL_STATUS"
expect_volumes "after -U" 0 /rig/upgraded

run_tool same -U -w ubi -p 0 -u /tmp/same.bin
expect_value "-U of the installed version succeeds" 0 "$TOOL_STATUS"
expect_volumes "after -U of the installed version" 0 /rig/upgraded

ubiupdatevol "$(ubi_vol_dev 0 extra-para)" /rig/rollback/primary.rec
ubiupdatevol "$(ubi_vol_dev 0 extra-para.b)" /rig/rollback/backup.rec
run_tool rollback -r -p 0
expect_value "-r" 0 "$TOOL_STATUS"
expect_volumes "after -r" 0 /rig/rollback extra-para extra-para.b
run_tool rollback -r
expect_volumes "after a second -r" 0 /rig/rollback extra-para extra-para.b
expect_volumes "after -r" 0 /rig/upgraded device-info firmware-info firmware-info.b kernel \
    kernel.b rootfs rootfs.b rootfs_data rootfs_data.b log log.b support-list
if [ -n "$NAND_BITFLIPS" ]; then
    flips=$(cat "/sys/class/mtd/mtd$(mtd_index ubi)/corrected_bits")
    [ "$flips" -gt 0 ] && ok "the ECC corrected $flips flipped bits" ||
        not_ok "no bit flip was corrected"
fi

rig_done
