# SPDX-License-Identifier: Apache-2.0
# A firmware file changed during the upgrade by a second process in the VM, once the
# upgrade is past its signature check: rewritten in place, or cut short (the tool's reads of
# its mapping then fault). A GOOD flag must never stand over bytes that were not the signed
# ones; a file cut short fails the upgrade. Raw flash (image carrying "ubi") and the UBI
# work mode, each both ways.

scenario_rewrite()
{
    local status=0 raw=$RIG_WORK/raw-data ubi=$RIG_WORK/ubi-data off how name target=""
    rig_device dual "$raw"
    rig_device ubi "$ubi"
    for name in firmware-info.b support-list kernel.b rootfs.b; do target="$target ubi0:$name"; done
    for how in rewrite truncate; do
        rewrite_vm "raw-$how" "$raw" "$(rig_content_offset "$raw/up.bin" 0 ubi)" new-ubi.bin \
            "$(rig_flash_config "FLASH_SIZE=$((DUAL_DISK)) PTN_BASE=$DUAL_PTN_BASE")
TOOL_ARGS=\"-U -u /tmp/up.bin\" TARGET=\"$dual_target\" FLAG=\"$dual_flag\"" || status=1
        rewrite_vm "ubi-$how" "$ubi" "$(rig_content_offset "$ubi/up.bin" 0 kernel.b)" \
            new-kernel.bin "$(rig_flash_config "FLASH_SIZE=$((UBI_DISK)) PTN_BASE=$UBI_PTN_BASE")
UBI_ATTACH=ubi:0 TOOL_ARGS=\"-U -w ubi -p 0 -u /tmp/up.bin\" TARGET=\"$target\"
FLAG=ubi0:extra-para.b" || status=1
    done
    return $status
}

# rewrite_vm NAME DATA OFFSET CONTENT CONFIG: one router whose firmware file is changed at
# OFFSET, the start of the content file CONTENT (NAME ends in -rewrite or -truncate).
rewrite_vm()
{
    local share
    share=$(rig_share "$1" "$RIG_DIR/scenarios/rewrite.guest.sh")
    cp -r "$2/up.bin" "$2/factory" "$2/upgraded" "$share/"
    rig_random "$share/evil.bin" "$(wc -c <"$2/$4")" rewrite-evil
    cp "$2/factory.img" "$2/flash.img"
    printf '%s\nEVIL_AT=%d MEDDLE=%s FACTORY_FLAG=GOOD:1\n' "$5" "$3" "${1#*-}" >"$share/config"
    rig_guest "$share" "$2/flash.img"
}
