# SPDX-License-Identifier: Apache-2.0
# The raw-flash router VR300 with two images in MTD partitions ("ubi" and "ubi.b",
# "firmware-info" and "firmware-info.b") whose flags live in the volumes "extra-para" and
# "extra-para.b" of the UBI partition "extra-para-ubi". Its firmware carries "ubi".
# Sourced by run.sh; used by the raw-ubi and power-cut scenarios.

DUAL_DISK=0x800000
DUAL_PTN_BASE=0x020000
dual_layout=(
    "BL2 0x000000 0x020000"
    "partition-table 0x020000 0x010000"
    "device-info 0x030000 0x010000"
    "firmware-info 0x040000 0x010000"
    "firmware-info.b 0x050000 0x010000"
    "support-list 0x060000 0x010000"
    "extra-para-ubi 0x080000 0x080000"
    "ubi 0x100000 0x300000"
    "ubi.b 0x400000 0x300000"
)

# What belongs to the image that runs (left alone by an upgrade) and to the one that
# receives the firmware; "mtd:" names an MTD partition, "ubi4:" a flag volume.
dual_other="mtd:BL2 mtd:partition-table mtd:device-info mtd:firmware-info mtd:ubi ubi4:extra-para"
dual_target="mtd:firmware-info.b mtd:support-list mtd:ubi.b"
dual_flag="ubi4:extra-para.b"

# dual_factory DIR: DIR/factory.img, DIR/factory/NAME (each partition and flag volume as it
# reads back) and DIR/ptn.json (the table the firmware carries: the same layout).
dual_factory()
{
    local dir=$1 f=$1/factory entry name base size
    mkdir -p "$f"
    rig_blank "$dir/factory.img" $DUAL_DISK
    rig_table_json $DUAL_DISK "${dual_layout[@]}" >"$dir/ptn.json"
    rig_record "$f/partition-table" <"$dir/ptn.json"
    rig_device_info VR300 55530000 | rig_record "$f/device-info"
    rig_firmware_info "1.3.0 Build 20260101 Rel.00001" VR300-A | rig_record "$f/firmware-info"
    rig_firmware_info "1.2.0 Build 20251201 Rel.00007" VR300-B | rig_record "$f/firmware-info.b"
    rig_random "$f/BL2" 0x20000 dual-BL2
    rig_random "$f/ubi" 0x300000 dual-ubi
    rig_random "$f/ubi.b" 0x280000 dual-ubi-b
    : >"$f/support-list"
    printf '{"dbootFlag":"1","integerFlag":"1","fwFlag":"GOOD","score":2,"note":"image A"}\0' |
        rig_record "$f/extra-para"
    printf '{"dbootFlag":"1","integerFlag":"1","fwFlag":"GOOD","score":1,"note":"image B"}\0' |
        rig_record "$f/extra-para.b"
    rig_ubinize "$dir/flags.img" 0x080000 "extra-para 1 $f/extra-para" "extra-para.b 1 $f/extra-para.b"
    rig_pad "$f/extra-para" "$RIG_LEB"
    rig_pad "$f/extra-para.b" "$RIG_LEB"
    for entry in "${dual_layout[@]}"; do
        read -r name base size <<<"$entry"
        if [ "$name" = extra-para-ubi ]; then
            rig_put "$dir/factory.img" "$base" "$dir/flags.img"
        else
            rig_pad "$f/$name" "$size"
            rig_put "$dir/factory.img" "$base" "$f/$name"
        fi
    done
}

# dual_firmware DIR: DIR/up.bin, one image with the same table, "support-list",
# "firmware-info" and "ubi".
dual_firmware()
{
    local dir=$1
    rig_random "$dir/new-ubi.bin" 0x2A0123 dual-new-ubi
    printf '{"support-list":[{"model_name":"VR300","model_version":"1.0","special_id":"55530000"}]}' \
        >"$dir/support.json"
    rig_firmware_info "1.4.0 Build 20261123 Rel.00042" VR300-NEW >"$dir/fwinfo.json"
    cat >"$dir/up.json" <<'JSON'
{"images": [{"partition-table": "ptn.json", "support-list": "support.json",
             "firmware-info": "fwinfo.json",
             "partitions": [{"name": "ubi", "file": "new-ubi.bin"}]}]}
JSON
    rig_pack "$dir/up.json" "$dir/up.bin"
}

# dual_expected DIR: DIR/upgraded/NAME after the upgrade. Scores 2 and 1 send "ubi" and
# "firmware-info" to their ".b" twins, each erased first; the backup's flag ends GOOD with
# score 3.
dual_expected()
{
    local dir=$1 out=$1/upgraded
    rm -rf "$out"
    cp -r "$dir/factory" "$out"
    cp "$dir/new-ubi.bin" "$out/ubi.b"
    rig_record "$out/firmware-info.b" <"$dir/fwinfo.json"
    rig_record "$out/support-list" <"$dir/support.json"
    local name
    for name in ubi.b firmware-info.b support-list; do
        rig_pad "$out/$name" "$(wc -c <"$dir/factory/$name")"
    done
    rig_flag_overlay "$out/extra-para.b" off 1 1
    rig_flag_overlay "$out/extra-para.b" on 3 1
}
