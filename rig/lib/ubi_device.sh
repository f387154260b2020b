# SPDX-License-Identifier: Apache-2.0
# The dual-image UBI router VR500: its factory flash (one MTD partition "ubi" holding both
# images' volumes) and its firmware files. Sourced by run.sh; used by the ubi, signature
# and power-cut scenarios.

UBI_DISK=0x800000
UBI_PTN_BASE=0x040000
ubi_layout=(
    "BL2 0x000000 0x040000"
    "partition-table 0x040000 0x010000"
    "ubi 0x080000 0x780000"
)

# name bytes: the volumes of UBI device 0, primary and backup image, and the room each needs
# (a whole number of LEBs of the medium's UBI).
ubi_volumes=(
    "device-info 1" "firmware-info 1" "firmware-info.b 1" "support-list 1"
    "extra-para 1" "extra-para.b 1" "kernel 400000" "kernel.b 400000" "rootfs 1100000"
    "rootfs.b 1100000" "rootfs_data 250000" "rootfs_data.b 250000" "log 100000" "log.b 100000"
)

# The LEBs of volume NAME.
ubi_lebs()
{
    local bytes
    bytes=$(printf '%s\n' "${ubi_volumes[@]}" | awk -v n="$1" '$1 == n { print $2 }')
    echo $(((bytes + RIG_LEB - 1) / RIG_LEB))
}

# ubi_factory DIR: DIR/factory.img and DIR/factory/NAME, each volume as it reads back
# (content, then 0xFF up to the reserved size). The primary image has score 2, the backup
# score 1, so an upgrade goes to the backup.
ubi_factory()
{
    local dir=$1 vol=$1/factory
    mkdir -p "$vol"
    rig_device_info VR500 55530000 | rig_record "$vol/device-info"
    rig_firmware_info "1.3.0 Build 20260101 Rel.00001" VR500-FACTORY | rig_record "$vol/firmware-info"
    rig_firmware_info "1.2.0 Build 20251201 Rel.00007" VR500-BACKUP | rig_record "$vol/firmware-info.b"
    printf '{"dbootFlag":"1","integerFlag":"1","fwFlag":"GOOD","score":2,"note":"primary image of the VR500"}\0' |
        rig_record "$vol/extra-para"
    printf '{"dbootFlag":"1","integerFlag":"1","fwFlag":"GOOD","score":1,"note":"backup image of the VR500"}\0' |
        rig_record "$vol/extra-para.b"
    rig_random "$vol/kernel" 300000 ubi-kernel
    rig_random "$vol/kernel.b" 280000 ubi-kernel-b
    rig_random "$vol/rootfs" 900000 ubi-rootfs
    rig_random "$vol/rootfs.b" 850000 ubi-rootfs-b
    rig_random "$vol/rootfs_data" 200000 ubi-rootfs-data
    rig_random "$vol/rootfs_data.b" 10000 ubi-rootfs-data-b
    rig_random "$vol/log" 70000 ubi-log
    local entries=() entry name lebs
    for entry in "${ubi_volumes[@]}"; do
        name=${entry%% *}
        lebs=$(ubi_lebs "$name")
        if [ -f "$vol/$name" ]; then
            entries+=("$name $lebs $vol/$name")
        else
            entries+=("$name $lebs")
            : >"$vol/$name"
        fi
    done
    rig_ubinize "$dir/ubi.img" 0x780000 "${entries[@]}"
    for entry in "${ubi_volumes[@]}"; do
        name=${entry%% *}
        rig_pad "$vol/$name" $(($(ubi_lebs "$name") * RIG_LEB))
    done
    rig_blank "$dir/factory.img" $UBI_DISK
    rig_table_json $UBI_DISK "${ubi_layout[@]}" | rig_record "$dir/ptn.rec"
    rig_put "$dir/factory.img" $UBI_PTN_BASE "$dir/ptn.rec"
    rig_put "$dir/factory.img" 0x080000 "$dir/ubi.img"
    printf '%s\n' "${ubi_volumes[@]}" | cut -d' ' -f1 >"$dir/volumes.list"
}

# ubi_image_json MODEL VERSION KERNEL ROOTFS: one image of a UBI firmware, writing the
# backup volumes (the firmware names the volumes it writes).
ubi_image_json()
{
    cat <<JSON
{"partitions": [
   {"name": "support-list", "file": "support-$1.json", "content-header": true},
   {"name": "firmware-info.b", "file": "fwinfo-$2.json", "content-header": true},
   {"name": "kernel.b", "file": "$3"},
   {"name": "rootfs.b", "file": "$4"}]}
JSON
}

# ubi_firmware DIR: up.bin (a VR100 image, then the VR500 image of 1.4.0), same.bin (the
# installed 1.3.0 build again), old.bin (1.2.9, refused) and other.bin (VR100 only).
ubi_firmware()
{
    local dir=$1 v
    rig_random "$dir/new-kernel.bin" 330000 ubi-new-kernel
    rig_random "$dir/new-rootfs.bin" 1000001 ubi-new-rootfs
    local model
    for model in VR100 VR500; do
        printf '{"support-list":[{"model_name":"%s","model_version":"1.0","special_id":"55530000"}]}' \
            "$model" >"$dir/support-$model.json"
    done
    rig_firmware_info "1.4.0 Build 20261123 Rel.00042" VR500-NEW >"$dir/fwinfo-1.4.0.json"
    rig_firmware_info "1.3.0 Build 20260101 Rel.00001" VR500-FACTORY >"$dir/fwinfo-1.3.0.json"
    rig_firmware_info "1.2.9 Build 20250101 Rel.00003" VR500-OLD >"$dir/fwinfo-1.2.9.json"
    for v in up same old other; do
        case $v in
        up) echo "{\"images\": [$(ubi_image_json VR100 1.4.0 new-kernel.bin new-rootfs.bin),
                                $(ubi_image_json VR500 1.4.0 new-kernel.bin new-rootfs.bin)]}" ;;
        same) echo "{\"images\": [$(ubi_image_json VR500 1.3.0 new-kernel.bin new-rootfs.bin)]}" ;;
        old) echo "{\"images\": [$(ubi_image_json VR500 1.2.9 new-kernel.bin new-rootfs.bin)]}" ;;
        other) echo "{\"images\": [$(ubi_image_json VR100 1.4.0 new-kernel.bin new-rootfs.bin)]}" ;;
        esac >"$dir/$v.json"
        rig_pack "$dir/$v.json" "$dir/$v.bin"
    done
}

# ubi_expected DIR: DIR/upgraded/NAME, each volume after the upgrade of up.bin.
ubi_expected()
{
    local dir=$1 out=$1/upgraded name
    rm -rf "$out"
    cp -r "$dir/factory" "$out"
    rig_record "$out/support-list" <"$dir/support-VR500.json"
    rig_record "$out/firmware-info.b" <"$dir/fwinfo-1.4.0.json"
    cp "$dir/new-kernel.bin" "$out/kernel.b"
    cp "$dir/new-rootfs.bin" "$out/rootfs.b"
    cp "$dir/factory/rootfs_data" "$out/rootfs_data.b"
    cp "$dir/factory/log" "$out/log.b"
    # pre-update wrote BAD with the backup's score 1, post-update GOOD with 2 + 1.
    rig_flag_overlay "$out/extra-para.b" off 1 1
    rig_flag_overlay "$out/extra-para.b" on 3 1
    for name in support-list firmware-info.b kernel.b rootfs.b; do
        rig_pad "$out/$name" $(($(ubi_lebs "$name") * RIG_LEB))
    done
}
