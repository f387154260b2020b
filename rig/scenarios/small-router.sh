# SPDX-License-Identifier: Apache-2.0
# A small router: 160 MiB of memory, the UBI work mode on NAND, and a 36 MiB firmware file of
# two images in /tmp (tmpfs: the file is in memory already), the first for this VR500, the
# second, large, for another model. The tool holds the file through its own pages, without
# a second copy: -C -w ubi passes and -U -w ubi installs every volume exactly, where a copy
# of the file would not fit beside it.

scenario_small_router()
{
    local data=$RIG_WORK/data share
    rig_medium nand
    rig_device ubi "$data"
    rig_random "$data/other-rootfs.bin" $((35 << 20)) small-router-other
    cat >"$data/big.json" <<JSON
{"images": [$(ubi_image_json VR500 1.4.0 new-kernel.bin new-rootfs.bin),
            {"partitions": [
               {"name": "support-list", "file": "support-VR100.json", "content-header": true},
               {"name": "firmware-info.b", "file": "fwinfo-1.4.0.json", "content-header": true},
               {"name": "rootfs.b", "file": "other-rootfs.bin"}]}]}
JSON
    rig_pack "$data/big.json" "$data/big.bin"
    share=$(rig_share vm "$RIG_DIR/scenarios/small-router.guest.sh")
    cp -r "$data/big.bin" "$data/upgraded" "$share/"
    rig_flash_config "FLASH_SIZE=$((UBI_DISK)) PTN_BASE=$UBI_PTN_BASE UBI_ATTACH=ubi:0" \
        >"$share/config"
    cp "$data/factory.img" "$RIG_WORK/flash.img"
    local status=0
    RIG_MEM=160 rig_guest "$share" "$RIG_WORK/flash.img" || status=1
    grep '^memory' "$share/out/guest.log" | sed 's/^/    /'
    return $status
}
