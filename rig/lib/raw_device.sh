# SPDX-License-Identifier: Apache-2.0
# The raw-flash router VR100: its factory flash and a firmware file whose second image
# brings a new layout. Sourced by run.sh; used by the raw, signature and rewrite scenarios
# and by the demo.

RAW_DISK=0x800000

# name base size: the factory layout, every partition aligned to 128 KiB so that it serves
# on the NAND router (128 KiB erase blocks) as on RAM-like flash.
raw_old_layout=(
    "BL2 0x000000 0x020000"
    "FIP 0x020000 0x040000"
    "partition-table 0x060000 0x020000"
    "device-info 0x080000 0x020000"
    "extra-para 0x0A0000 0x020000"
    "firmware-info 0x0C0000 0x020000"
    "support-list 0x0E0000 0x020000"
    "user-config 0x100000 0x020000"
    "log 0x120000 0x020000"
    "kernel 0x140000 0x200000"
    "rootfs 0x340000 0x300000"
)

# The image's layout: "log" moves down into the place of "user-config" and grows over its
# own, "user-config" and "FIP" move to the end, "radio" is new. The partitions the image
# carries keep their places, since their new content is written to the running system's
# partition of that name.
raw_new_layout=(
    "BL2 0x000000 0x020000"
    "partition-table 0x060000 0x020000"
    "device-info 0x080000 0x020000"
    "extra-para 0x0A0000 0x020000"
    "firmware-info 0x0C0000 0x020000"
    "support-list 0x0E0000 0x020000"
    "log 0x100000 0x040000"
    "kernel 0x140000 0x200000"
    "rootfs 0x340000 0x300000"
    "user-config 0x640000 0x020000"
    "FIP 0x660000 0x040000"
    "radio 0x6A0000 0x020000"
)

RAW_PTN_BASE=0x060000

# The partitions of the factory layout that up.bin's upgrade erases by name: those the image
# carries, and the partition table, which changes.
raw_erased_by_name=(partition-table firmware-info support-list BL2 FIP kernel rootfs)

# raw_layout_field NAME FIELD LAYOUT...: base (FIELD 2) or size (FIELD 3) of NAME.
raw_layout_field()
{
    local name=$1 field=$2
    shift 2
    printf '%s\n' "$@" | awk -v n="$name" -v f="$field" '$1 == n { print $f }'
}

# raw_erase_parts IMAGE LAYOUT PART...: the named partitions, where the layout array named
# LAYOUT places them, erased (0xFF) in IMAGE.
raw_erase_parts()
{
    local img=$1 part
    local -n parts_layout=$2
    shift 2
    for part in "$@"; do
        rig_blank "$img.ff" "$(raw_layout_field "$part" 3 "${parts_layout[@]}")"
        rig_put "$img" "$(raw_layout_field "$part" 2 "${parts_layout[@]}")" "$img.ff"
    done
    rm -f "$img.ff"
}

# raw_factory DIR: DIR/factory.img, the flash as the factory writes it, and the files it
# was made from.
raw_factory()
{
    local dir=$1 img=$1/factory.img
    rig_blank "$img" $RAW_DISK
    rig_table_json $RAW_DISK "${raw_old_layout[@]}" | rig_record "$dir/ptn-old.rec"
    rig_put "$img" 0x060000 "$dir/ptn-old.rec"
    rig_device_info VR100 55530000 | rig_record "$dir/device-info.rec"
    rig_put "$img" 0x080000 "$dir/device-info.rec"
    printf '{"dbootFlag":"1","integerFlag":"1","fwFlag":"GOOD","score":0,"note":"factory settings of the VR100"}' |
        rig_record "$dir/extra-para.rec"
    rig_put "$img" 0x0A0000 "$dir/extra-para.rec"
    rig_firmware_info "1.0.0 Build 20260101 Rel.00001" VR100-FACTORY | rig_record "$dir/fwinfo-old.rec"
    rig_put "$img" 0x0C0000 "$dir/fwinfo-old.rec"
    local part
    for part in BL2 FIP user-config log kernel rootfs; do
        rig_random "$dir/old-$part.bin" "$(raw_layout_field "$part" 3 "${raw_old_layout[@]}")" \
            "factory-$part"
        rig_put "$img" "$(raw_layout_field "$part" 2 "${raw_old_layout[@]}")" "$dir/old-$part.bin"
    done
}

# raw_firmware DIR: DIR/up.bin (image 1 for the VR200, image 2 for the VR100 with the new
# layout; both share one rootfs), DIR/other.bin (the VR200 image alone) and DIR/same.bin
# (the VR100 with its factory layout).
raw_firmware()
{
    local dir=$1
    rig_table_json $RAW_DISK "${raw_new_layout[@]}" >"$dir/ptn-new.json"
    rig_random "$dir/new-BL2.bin" 0x12345 new-BL2
    rig_random "$dir/new-FIP.bin" 0x30123 new-FIP
    rig_random "$dir/new-kernel.bin" 0x1A0000 new-kernel
    rig_random "$dir/vr200-kernel.bin" 0x100000 vr200-kernel
    rig_random "$dir/new-rootfs.bin" 0x2C8001 new-rootfs
    printf '{"support-list":[{"model_name":"VR100","model_version":"1.0","special_id":"55530000"}]}' \
        >"$dir/support-vr100.json"
    printf '{"support-list":[{"model_name":"VR200","model_version":"1.0","special_id":"55530000"}]}' \
        >"$dir/support-vr200.json"
    rig_firmware_info "1.4.0 Build 20261123 Rel.00042" VR100-NEW >"$dir/fwinfo-new.json"
    local vr200='{
      "partition-table": "ptn-new.json", "support-list": "support-vr200.json",
      "firmware-info": "fwinfo-new.json",
      "partitions": [{"name": "kernel", "file": "vr200-kernel.bin"},
                     {"name": "rootfs", "file": "new-rootfs.bin"}]}'
    local vr100='{
      "partition-table": "ptn-new.json", "support-list": "support-vr100.json",
      "firmware-info": "fwinfo-new.json",
      "partitions": [{"name": "BL2", "file": "new-BL2.bin"},
                     {"name": "FIP", "file": "new-FIP.bin"},
                     {"name": "kernel", "file": "new-kernel.bin"},
                     {"name": "rootfs", "file": "new-rootfs.bin"}]}'
    echo "{\"images\": [$vr200, $vr100]}" >"$dir/up.json"
    echo "{\"images\": [$vr200]}" >"$dir/other.json"
    rig_pack "$dir/up.json" "$dir/up.bin"
    rig_pack "$dir/other.json" "$dir/other.bin"
    # same.bin: a VR100 image that keeps the factory layout and brings kernel and rootfs.
    rig_table_json $RAW_DISK "${raw_old_layout[@]}" >"$dir/ptn-old.json"
    cat >"$dir/same.json" <<JSON
{"images": [{"partition-table": "ptn-old.json", "support-list": "support-vr100.json",
             "firmware-info": "fwinfo-new.json",
             "partitions": [{"name": "kernel", "file": "new-kernel.bin"},
                            {"name": "rootfs", "file": "new-rootfs.bin"}]}]}
JSON
    rig_pack "$dir/same.json" "$dir/same.bin"
}

# raw_expected DIR: DIR/expected.img, the flash after the upgrade, worked out step by step
# from the factory image: moves copy from the flash as it was, every carried partition is
# erased (as the running system knows it) and written in 2048-byte units padded with 0xFF,
# "BL2" and "FIP" at their new bases, and "extra-para" ends with the GOOD document.
raw_expected()
{
    local dir=$1 exp=$1/expected.img
    cp "$dir/factory.img" "$exp"
    # Moves, from the factory bytes (each of its old size): "log" down over the old place of
    # "user-config", "user-config" and "FIP" away.
    rig_put "$exp" 0x100000 "$dir/old-log.bin"
    rig_put "$exp" 0x640000 "$dir/old-user-config.bin"
    rig_put "$exp" 0x660000 "$dir/old-FIP.bin"
    # Erases of the running system's partitions.
    raw_erase_parts "$exp" raw_old_layout "${raw_erased_by_name[@]}"
    rig_record "$dir/ptn-new.rec" <"$dir/ptn-new.json"
    rig_record "$dir/fwinfo-new.rec" <"$dir/fwinfo-new.json"
    rig_record "$dir/support-vr100.rec" <"$dir/support-vr100.json"
    rig_put_units "$exp" "$dir" ptn-new.rec:0x060000 fwinfo-new.rec:0x0C0000 \
        support-vr100.rec:0x0E0000 new-BL2.bin:0x000000 new-FIP.bin:0x660000 \
        new-kernel.bin:0x140000 new-rootfs.bin:0x340000
    rig_get "$dir/factory.img" 0x0A0000 0x020000 "$dir/extra-para.exp"
    rig_flag_overlay "$dir/extra-para.exp" on 0 0
    rig_put "$exp" 0x0A0000 "$dir/extra-para.exp"
    printf '%s\n' "${raw_new_layout[@]}" >"$dir/new.list"
}
