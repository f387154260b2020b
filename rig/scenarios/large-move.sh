# SPDX-License-Identifier: Apache-2.0
# A large layout change on a 128 MiB NAND chip (nandsim's large-page chip at its own size):
# -U of a file whose new table moves three partitions of 16 MiB each up by 16 MiB, a chain
# in which each takes the place of the next (48 MiB moved). The router build makes these
# moves under its journal, staged in the free flash behind them. The flash is checked byte
# for byte against an image worked out here from the factory image; the tool's private
# memory (RssAnon, the preloaded library's probe) stays under 4 MiB and the seals, as no
# move is held in memory. Then one power cut in the middle of the moves (the tool killed at
# a flash operation) and the same command again: nothing is lost, the flash ends the same.

LARGE_DISK=0x8000000
LARGE_PTN_BASE=0x000000

large_old_layout=(
    "partition-table 0x0000000 0x0020000"
    "device-info 0x0020000 0x0020000"
    "extra-para 0x0040000 0x0020000"
    "firmware-info 0x0060000 0x0020000"
    "support-list 0x0080000 0x0020000"
    "kernel 0x00A0000 0x0160000"
    "data 0x0200000 0x1000000"
    "log 0x1200000 0x1000000"
    "cfg 0x2200000 0x1000000"
)

# "data" takes the place of "log", "log" that of "cfg", "cfg" moves on; from 0x4200000 on
# the flash is free (62 MiB), room for the journal's staged copies.
large_new_layout=(
    "partition-table 0x0000000 0x0020000"
    "device-info 0x0020000 0x0020000"
    "extra-para 0x0040000 0x0020000"
    "firmware-info 0x0060000 0x0020000"
    "support-list 0x0080000 0x0020000"
    "kernel 0x00A0000 0x0160000"
    "data 0x1200000 0x1000000"
    "log 0x2200000 0x1000000"
    "cfg 0x3200000 0x1000000"
)

# large_device DIR: factory.img, up.bin and expected.img (the flash after the upgrade).
large_device()
{
    local dir=$1 img=$1/factory.img exp=$1/expected.img part
    mkdir -p "$dir"
    rig_blank "$img" $LARGE_DISK
    rig_table_json $LARGE_DISK "${large_old_layout[@]}" | rig_record "$dir/ptn-old.rec"
    rig_put "$img" 0 "$dir/ptn-old.rec"
    rig_device_info VR100 55530000 | rig_record "$dir/device-info.rec"
    rig_put "$img" 0x020000 "$dir/device-info.rec"
    printf '{"dbootFlag":"1","integerFlag":"1","fwFlag":"GOOD","score":0,"note":"factory"}' |
        rig_record "$dir/extra-para.rec"
    rig_put "$img" 0x040000 "$dir/extra-para.rec"
    rig_firmware_info "1.0.0 Build 20260101 Rel.00001" VR100-FACTORY | rig_record "$dir/fwinfo-old.rec"
    rig_put "$img" 0x060000 "$dir/fwinfo-old.rec"
    for part in kernel data log cfg; do
        rig_random "$dir/old-$part.bin" "$(raw_layout_field "$part" 3 "${large_old_layout[@]}")" \
            "large-$part"
        rig_put "$img" "$(raw_layout_field "$part" 2 "${large_old_layout[@]}")" "$dir/old-$part.bin"
    done

    rig_table_json $LARGE_DISK "${large_new_layout[@]}" >"$dir/ptn-new.json"
    rig_random "$dir/new-kernel.bin" 0x30001 large-new-kernel
    printf '{"support-list":[{"model_name":"VR100","model_version":"1.0","special_id":"55530000"}]}' \
        >"$dir/support.json"
    rig_firmware_info "1.4.0 Build 20261124 Rel.00048" VR100-LARGE >"$dir/fwinfo-new.json"
    cat >"$dir/up.json" <<JSON
{"images": [{"partition-table": "ptn-new.json", "support-list": "support.json",
             "firmware-info": "fwinfo-new.json",
             "partitions": [{"name": "kernel", "file": "new-kernel.bin"}]}]}
JSON
    rig_pack "$dir/up.json" "$dir/up.bin"

    # The flash after the upgrade, from the factory bytes: the moves (in the order of the
    # chain, each from its old content), the carried partitions erased at their old places
    # and written in 2048-byte units padded with 0xFF, "extra-para" ending GOOD. The old
    # place of "data" keeps its bytes; the free flash is erased as before.
    cp "$img" "$exp"
    for part in data log cfg; do
        rig_put "$exp" "$(raw_layout_field "$part" 2 "${large_new_layout[@]}")" "$dir/old-$part.bin"
    done
    raw_erase_parts "$exp" large_old_layout partition-table firmware-info support-list kernel
    rig_record "$dir/ptn-new.rec" <"$dir/ptn-new.json"
    rig_record "$dir/fwinfo-new.rec" <"$dir/fwinfo-new.json"
    rig_record "$dir/support.rec" <"$dir/support.json"
    rig_put_units "$exp" "$dir" ptn-new.rec:0x000000 fwinfo-new.rec:0x060000 support.rec:0x080000 \
        new-kernel.bin:0x0A0000
    rig_get "$img" 0x040000 0x020000 "$dir/extra-para.exp"
    rig_flag_overlay "$dir/extra-para.exp" on 0 0
    rig_put "$exp" 0x040000 "$dir/extra-para.exp"
    rm -f "$dir"/old-*.bin
}

scenario_large_move()
{
    local data=$RIG_WORK/data share status=0
    rig_medium nand
    large_device "$data" || return 1
    share=$(rig_share vm "$RIG_DIR/scenarios/large-move.guest.sh")
    cp "$data/up.bin" "$data/expected.img" "$share/"
    # nandsim's large-page chip without a size override: 128 MiB.
    rig_flash_config "FLASH_SIZE=$((LARGE_DISK)) PTN_BASE=$LARGE_PTN_BASE NAND_PARAMS=overridesize=0" \
        >"$share/config"
    mv "$data/factory.img" "$RIG_WORK/flash.img"
    RIG_MEM=512 RIG_BOOT_TIMEOUT=900 rig_guest "$share" "$RIG_WORK/flash.img" || status=1
    grep -E '^(memory|time|cut):' "$share/out/guest.log" | sed 's/^/    /'
    rm -f "$RIG_WORK/flash.img" "$share/expected.img"
    return $status
}
