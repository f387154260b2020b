# SPDX-License-Identifier: Apache-2.0
# Raw flash on NAND (512-byte pages, 16 KiB erase blocks: the layout is aligned to 64 KiB)
# and on NOR (64 KiB erase blocks), image carrying "ubi": "extra-para-ubi" is attached as UBI
# device 4 for the flags, "ubi" and "firmware-info" go to their ".b" twins by score, and the
# running image is left alone.

scenario_raw_ubi()
{
    local status=0 medium
    for medium in nand-small nor; do
        raw_ubi_on "$medium" || status=1
    done
    return $status
}

raw_ubi_on()
{
    local data=$RIG_WORK/$1-data share
    rig_medium "$1" 65536
    rig_device dual "$data"
    cp "$data/factory.img" "$RIG_WORK/flash.img"
    share=$(rig_share "$1" "$RIG_DIR/scenarios/raw-ubi.guest.sh")
    cp -r "$data/up.bin" "$data/factory" "$data/upgraded" "$share/"
    cat >"$share/config" <<CONFIG
$(rig_flash_config "FLASH_SIZE=$((DUAL_DISK)) PTN_BASE=$DUAL_PTN_BASE")
OTHER="$dual_other" TARGET="$dual_target" FLAG="$dual_flag"
CONFIG
    rig_guest "$share" "$RIG_WORK/flash.img"
}
