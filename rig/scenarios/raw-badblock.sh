# SPDX-License-Identifier: Apache-2.0
# A bad erase block in a raw partition: the NAND router of the raw scenario with erase block
# 11 (inside "kernel", base 0x140000) bad. "mtd erase kernel" skips the block; the tool's write
# refuses it, and -U fails safely: exit 255, the content failure traced, the image flagged
# off and never GOOD.

scenario_raw_badblock()
{
    local data=$RIG_WORK/data share
    rig_medium nand
    rig_device raw "$data"
    cp "$data/factory.img" "$RIG_WORK/flash.img"
    share=$(rig_share vm "$RIG_DIR/scenarios/raw-badblock.guest.sh")
    cp "$data/up.bin" "$share/"
    {
        rig_flash_config "FLASH_SIZE=$((RAW_DISK)) PTN_BASE=$RAW_PTN_BASE"
        echo 'NAND_BADBLOCKS=11'
    } >"$share/config"
    rig_guest "$share" "$RIG_WORK/flash.img"
}
