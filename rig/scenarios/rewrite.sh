# A firmware file rewritten during the upgrade by a second process in the VM, once the
# upgrade is past its signature check: a GOOD flag must never stand over bytes that were
# not the signed ones. Raw flash (image carrying "ubi") and the UBI work mode.

scenario_rewrite()
{
    local status=0 share raw=$RIG_WORK/raw-data ubi=$RIG_WORK/ubi-data off
    rig_device dual "$raw"
    share=$(rig_share raw "$RIG_DIR/scenarios/rewrite.guest.sh")
    cp -r "$raw/up.bin" "$raw/factory" "$raw/upgraded" "$share/"
    off=$(rig_content_offset "$raw/up.bin" 0 ubi)
    rig_random "$share/evil.bin" "$(wc -c <"$raw/new-ubi.bin")" rewrite-evil
    cp "$raw/factory.img" "$raw/flash.img"
    cat >"$share/config" <<CONFIG
$(rig_flash_config "FLASH_SIZE=$((DUAL_DISK)) PTN_BASE=$DUAL_PTN_BASE")
TOOL_ARGS="-U -u /tmp/up.bin" EVIL_AT=$off TARGET="$dual_target" FLAG="$dual_flag" FACTORY_FLAG=GOOD:1
CONFIG
    rig_guest "$share" "$raw/flash.img" || status=1

    rig_device ubi "$ubi"
    share=$(rig_share ubi "$RIG_DIR/scenarios/rewrite.guest.sh")
    cp -r "$ubi/up.bin" "$ubi/factory" "$ubi/upgraded" "$share/"
    off=$(rig_content_offset "$ubi/up.bin" 0 kernel.b)
    rig_random "$share/evil.bin" "$(wc -c <"$ubi/new-kernel.bin")" rewrite-evil
    cp "$ubi/factory.img" "$ubi/flash.img"
    local target="" name
    for name in firmware-info.b support-list kernel.b rootfs.b; do target="$target ubi0:$name"; done
    cat >"$share/config" <<CONFIG
$(rig_flash_config "FLASH_SIZE=$((UBI_DISK)) PTN_BASE=$UBI_PTN_BASE") UBI_ATTACH=ubi:0
TOOL_ARGS="-U -w ubi -p 0 -u /tmp/up.bin" EVIL_AT=$off TARGET="$target" FLAG=ubi0:extra-para.b FACTORY_FLAG=GOOD:1
CONFIG
    rig_guest "$share" "$ubi/flash.img" || status=1
    return $status
}
