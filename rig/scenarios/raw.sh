# SPDX-License-Identifier: Apache-2.0
# Raw flash on NAND (2 KiB pages, 128 KiB erase blocks) and on NOR (128 KiB erase blocks, a
# program only clears bits): -C, then -U of a two-image file whose second image fits and
# changes the layout (moves that overlap, a partition that grows, a new one). The flag in
# "extra-para" is watched while the upgrade runs; the router is then booted again with the
# partitions of the new table and every byte of the flash is checked against what RAM-like
# flash would hold.

scenario_raw()
{
    local data=$RIG_WORK/data status=0 medium
    rig_device raw "$data"
    for medium in nand nor; do
        raw_on "$medium" "$data" || status=1
    done
    return $status
}

# raw_on MEDIUM DATA: the upgrade and the reboot on MEDIUM, from the device files in DATA.
raw_on()
{
    local data=$2 flash=$RIG_WORK/$1-flash.img share status=0
    rig_medium "$1"
    cp "$data/factory.img" "$flash"
    share=$(rig_share "$1-upgrade" "$RIG_DIR/scenarios/raw.guest.sh")
    cp "$data/up.bin" "$data/other.bin" "$data/expected.img" "$share/"
    rig_flash_config "FLASH_SIZE=$((RAW_DISK)) PTN_BASE=$RAW_PTN_BASE PHASE=upgrade" >"$share/config"
    rig_guest "$share" "$flash" || status=1

    share=$(rig_share "$1-reboot" "$RIG_DIR/scenarios/raw.guest.sh")
    cp "$data/expected.img" "$data/new.list" "$share/"
    rig_flash_config "FLASH_SIZE=$((RAW_DISK)) PTN_BASE=$RAW_PTN_BASE PHASE=verify" >"$share/config"
    rig_guest "$share" "$flash" || status=1
    return $status
}
