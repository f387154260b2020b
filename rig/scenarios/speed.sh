# SPDX-License-Identifier: Apache-2.0
# Speed on flash: in one VM per work mode on the NAND router, -U (its checks, flag writes,
# moves, erases, writes and read-backs) against what mtd-utils take to make the same writes:
# flash_erase and nandwrite of each raw region the upgrade changes, ubiupdatevol of each
# volume it replaces or copies. Both must leave the flash as expected; the median times of
# three rounds and their ratio are printed. Then, on timed flash (the chip's own read,
# program and erase times), -U once per work mode against the physical floor: the erases
# and programs its result needs at least.

scenario_speed()
{
    local status=0 raw=$RIG_WORK/raw-data ubi=$RIG_WORK/ubi-data share
    rig_medium nand
    rig_device raw "$raw"
    share=$(rig_share raw "$RIG_DIR/scenarios/speed.guest.sh")
    cp "$raw/up.bin" "$raw/expected.img" "$raw/factory.img" "$share/"
    # The erase blocks whose bytes the upgrade changes, as regions of the expected flash.
    local region base len first last
    for region in 0x000000:0x20000 0x060000:0x20000 0x0A0000:0x20000 0x0C0000:0x40000 \
        0x100000:0x20000 0x140000:0x1A0000 0x340000:0x2C9000 0x640000:0x60000; do
        base=$((${region%:*})) len=$((${region#*:}))
        first=$((base / RIG_PEB)) last=$(((base + len + RIG_PEB - 1) / RIG_PEB))
        rig_get "$raw/expected.img" $((first * RIG_PEB)) $(((last - first) * RIG_PEB)) \
            "$share/region-$first.bin"
        echo "$first $((last - first)) region-$first.bin" >>"$share/regions"
    done
    rig_flash_config "FLASH_SIZE=$((RAW_DISK)) PTN_BASE=$RAW_PTN_BASE MODE=default" >"$share/config"
    cp "$raw/factory.img" "$RIG_WORK/raw-flash.img"
    rig_guest "$share" "$RIG_WORK/raw-flash.img" || status=1
    grep '^speed' "$share/out/guest.log" | sed 's/^/    /'

    rig_device ubi "$ubi"
    share=$(rig_share ubi "$RIG_DIR/scenarios/speed.guest.sh")
    cp "$ubi/up.bin" "$share/"
    cp -r "$ubi/upgraded" "$share/"
    mkdir -p "$share/files"
    rig_record "$share/files/support-list" <"$ubi/support-VR500.json"
    rig_record "$share/files/firmware-info.b" <"$ubi/fwinfo-1.4.0.json"
    cp "$ubi/new-kernel.bin" "$share/files/kernel.b"
    cp "$ubi/new-rootfs.bin" "$share/files/rootfs.b"
    cp "$ubi/upgraded/extra-para.b" "$share/files/extra-para.b"
    cp "$ubi/ubi.img" "$share/"
    rig_flash_config "FLASH_SIZE=$((UBI_DISK)) PTN_BASE=$UBI_PTN_BASE UBI_ATTACH=ubi:0 MODE=ubi" \
        >"$share/config"
    cp "$ubi/factory.img" "$RIG_WORK/ubi-flash.img"
    rig_guest "$share" "$RIG_WORK/ubi-flash.img" || status=1
    grep '^speed' "$share/out/guest.log" | sed 's/^/    /'

    speed_timed nand default "$raw" "$RAW_DISK" "$RAW_PTN_BASE" || status=1
    speed_timed nand ubi "$ubi" "$UBI_DISK" "$UBI_PTN_BASE" || status=1
    # The NOR chip's 64 KiB blocks take a UBI image of their own.
    rig_medium nor 65536
    rig_device ubi "$RIG_WORK/ubi-nor"
    speed_timed nor default "$raw" "$RAW_DISK" "$RAW_PTN_BASE" || status=1
    speed_timed nor ubi "$RIG_WORK/ubi-nor" "$UBI_DISK" "$UBI_PTN_BASE" || status=1
    return $status
}

# speed_timed MEDIUM MODE DIR DISK PTN_BASE: -U of DIR's up.bin on the timed chip of MEDIUM,
# in work mode MODE, against the physical floor between the flash just before it and the
# flash after it; in raw mode the partitions the upgrade erases by name count as erased.
speed_timed()
{
    local medium=$1 mode=$2 dir=$3 disk=$4 ptn=$5 share flash status=0 name
    local label=raw erased=()
    [ "$mode" = ubi ] && label=ubi
    case $medium in nor) rig_medium nor 65536 ;; *) rig_medium "$medium" ;; esac
    share=$(rig_share "timed-$medium-$label" "$RIG_DIR/scenarios/speed-timed.guest.sh")
    cp "$dir/up.bin" "$share/"
    if [ "$mode" = ubi ]; then
        cp -r "$dir/upgraded" "$share/"
        rig_flash_config "FLASH_SIZE=$((disk)) PTN_BASE=$ptn UBI_ATTACH=ubi:0 MODE=ubi" >"$share/config"
    else
        cp "$dir/expected.img" "$share/"
        rig_flash_config "FLASH_SIZE=$((disk)) PTN_BASE=$ptn MODE=default" >"$share/config"
        for name in "${raw_erased_by_name[@]}"; do
            erased+=("$(raw_layout_field "$name" 2 "${raw_old_layout[@]}"):$(raw_layout_field "$name" 3 "${raw_old_layout[@]}")")
        done
    fi
    rig_timing_config "$medium" >>"$share/config"
    flash=$RIG_WORK/timed-$medium-$label-flash.img
    cp "$dir/factory.img" "$flash"
    rig_guest "$share" "$flash" || status=1
    local tool floor
    tool=$(sed -n "s/^timed $mode: -U \([0-9]*\) ms.*/\1/p" "$share/out/guest.log")
    floor=$(rig_floor "$medium" "$share/out/before.img" "$flash" "${erased[@]}") || status=1
    if [ -z "$tool" ] || [ -z "$floor" ]; then
        echo "    no timing of -U on timed $medium ($label)"
        return 1
    fi
    local ms=${floor##*, }
    ms=${ms% ms}
    echo "    speed $medium $label: -U $tool ms, floor $ms ms, $(awk "BEGIN { printf \"%.2f\", $tool / $ms }")x"
    echo "      floor: ${floor%, *}"
    sed -n "s/^timed $mode: -U [0-9]* ms, \(.*\)/      \1/p" "$share/out/guest.log"
    # On NOR the chip counts its own work: its time at the chip's rates, against the floor.
    local chip
    chip=$(sed -n "s/^timed $mode chip: \([0-9]*\) erases, \([0-9]*\) bytes programmed$/\1 \2/p" \
        "$share/out/guest.log")
    if [ -n "$chip" ]; then
        set -- $chip
        echo "      the chip erased $1 blocks and programmed $2 bytes: $(awk "BEGIN {
            w = ($1 * $RIG_NOR_ERASE_US + $2 * $RIG_NOR_PROGRAM_NS / 1000) / 1000
            printf \"%.0f ms, %.2fx the floor\", w, w / $ms }")"
    fi
    return $status
}
