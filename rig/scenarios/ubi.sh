# SPDX-License-Identifier: Apache-2.0
# UBI work mode on NAND and on NOR (64 KiB erase blocks): -C, -U with volume replacement through the volume-update ioctl,
# the user data copied to the backup image, flags and scores; the same software version left
# alone; roll-back. Every volume is read back and compared. ubi-badblocks: the same on a NAND
# whose UBI partition holds two bad erase blocks and whose every page read flips a bit (which
# the ECC corrects and UBI scrubs).

scenario_ubi()
{
    local status=0
    ubi_scenario nand "" "" || status=1
    ubi_scenario nor "" "" || status=1
    return $status
}

scenario_ubi_badblocks()
{
    # Erase blocks 6 and 30 of the chip: 2 and 26 of the "ubi" partition (base 0x080000).
    RIG_UBI_BAD="2 26" ubi_scenario nand "6 30" 1
}

# ubi_scenario MEDIUM BADBLOCKS BITFLIPS
ubi_scenario()
{
    local data=$RIG_WORK/$1-data share
    rig_medium "$1" 65536
    shift
    rig_device ubi "$data"
    # Roll-back from primary score 8 and backup score 3 (set with ubiupdatevol).
    local rb=$data/rollback
    mkdir -p "$rb"
    printf '{"dbootFlag":"1","integerFlag":"1","fwFlag":"GOOD","score":8}\0' | rig_record "$rb/primary.rec"
    printf '{"dbootFlag":"0","integerFlag":"0","fwFlag":"BAD","score":3,"note":"left over"}\0' |
        rig_record "$rb/backup.rec"
    cp "$rb/primary.rec" "$rb/extra-para"
    cp "$rb/backup.rec" "$rb/extra-para.b"
    rig_flag_overlay "$rb/extra-para.b" on 9 1
    rig_pad "$rb/extra-para" "$RIG_LEB"
    rig_pad "$rb/extra-para.b" "$RIG_LEB"

    share=$(rig_share "$RIG_MEDIUM" "$RIG_DIR/scenarios/ubi.guest.sh")
    cp "$data"/{up,same,old,other}.bin "$share/"
    cp -r "$data/factory" "$data/upgraded" "$rb" "$share/"
    cp "$data/factory.img" "$RIG_WORK/flash.img"
    {
        rig_flash_config "FLASH_SIZE=$((UBI_DISK)) PTN_BASE=$UBI_PTN_BASE UBI_ATTACH=ubi:0"
        echo "NAND_BADBLOCKS=\"$1\" NAND_BITFLIPS=$2"
    } >"$share/config"
    rig_guest "$share" "$RIG_WORK/flash.img"
}
