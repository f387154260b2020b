# SPDX-License-Identifier: Apache-2.0
# Device identity: the whole flash, a partition's character device and its block device
# show the same bytes, on mtdram, block2mtd, both NAND chips and the NOR flash (64 KiB erase
# blocks); UBI on each finds the LEB size the host makes its images for, and a volume
# replaced with ubiupdatevol reads back as the image followed by 0xFF up to its reserved size.
# On NOR the medium's type and geometry are checked, and that a program only clears bits.

identity_layout=(
    "BL2 0x000000 0x040000"
    "partition-table 0x040000 0x020000"
    "data 0x060000 0x060000"
    "ubi 0x0C0000 0x340000"
)

# Each router also checks that it is the machine asked for (x86_64 or aarch64), that every
# module it carries loads into its kernel, and what its medium reports: type, erase block
# and write unit.
# The modules that bring up a flash when they load: each router loads only its own, the
# other routers of the scenario the rest.
identity_flash_drivers="mtdram block2mtd nandsim rig_nor"

# The type /sys/class/mtd/mtd0/type names for the current medium.
identity_mtd_type()
{
    case $RIG_MEDIUM in nand | nand-small) echo nand ;; nor) echo nor ;; *) echo ram ;; esac
}

scenario_identity()
{
    local status=0 backend flash share
    for backend in mtdram block2mtd nand nand-small nor; do
        rig_medium "$backend" 65536
        share=$(rig_share "$backend" "$RIG_DIR/scenarios/identity.guest.sh")
        flash=$share/flash.img
        rig_blank "$flash" 0x400000
        rig_table_json 0x400000 "${identity_layout[@]}" | rig_record "$share/ptn.rec"
        rig_put "$flash" 0x040000 "$share/ptn.rec"
        rig_random "$share/data.bin" 0x060000 identity-data
        rig_random "$share/vol.bin" 100000 identity-volume
        {
            rig_flash_config "FLASH_SIZE=$((0x400000)) PTN_BASE=0x040000 UBI_LEB=$RIG_LEB"
            echo "MTD_TYPE=$(identity_mtd_type) WRITESIZE=$RIG_MIN_IO MACHINE=$(rig_machine)"
            echo "FLASH_DRIVERS=\"$identity_flash_drivers\""
            [ "$backend" != block2mtd ] && echo "FLASH_IMAGE=flash.img"
        } >"$share/config"
        if [ "$backend" = block2mtd ]; then
            rig_guest "$share" "$flash" || status=1
        else
            rig_guest "$share" || status=1
        fi
    done
    return $status
}
