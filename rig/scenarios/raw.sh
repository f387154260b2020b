# SPDX-License-Identifier: Apache-2.0
# Raw flash on NAND (2 KiB pages, 128 KiB erase blocks): -C, then -U of a two-image file
# whose second image fits and changes the layout (moves that overlap, a partition that grows,
# a new one). The flag in "extra-para" is watched while the upgrade runs; the router is then
# booted again with the partitions of the new table and every byte of the flash is checked
# against what RAM-like flash would hold.

scenario_raw()
{
    local data=$RIG_WORK/data
    rig_medium nand
    rig_device raw "$data"
    cp "$data/factory.img" "$RIG_WORK/flash.img"

    local share status=0
    share=$(rig_share upgrade "$RIG_DIR/scenarios/raw.guest.sh")
    cp "$data/up.bin" "$data/other.bin" "$data/expected.img" "$share/"
    rig_flash_config "FLASH_SIZE=$((RAW_DISK)) PTN_BASE=$RAW_PTN_BASE PHASE=upgrade" >"$share/config"
    rig_guest "$share" "$RIG_WORK/flash.img" || status=1

    share=$(rig_share reboot "$RIG_DIR/scenarios/raw.guest.sh")
    cp "$data/expected.img" "$data/new.list" "$share/"
    rig_flash_config "FLASH_SIZE=$((RAW_DISK)) PTN_BASE=$RAW_PTN_BASE PHASE=verify" >"$share/config"
    rig_guest "$share" "$RIG_WORK/flash.img" || status=1
    return $status
}
