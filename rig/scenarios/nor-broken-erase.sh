# SPDX-License-Identifier: Apache-2.0
# A broken build caught by the NOR flash: the tool of the last commit with
# rig/broken/skip-erase.patch applied (no "mtd erase" before a partition's content is
# written) runs the raw upgrade of the raw scenario (VR100, 128 KiB erase blocks). On NOR a
# program over bytes that are not erased fails, so the broken build must fail the upgrade,
# leave the image flagged off and the flash other than a good upgrade leaves it; the good
# build then installs from the same factory flash in the same boot. On block2mtd, which
# overwrites like RAM, the same broken build is run too and what it did is only reported:
# there the missing erase need not show.

scenario_nor_broken_erase()
{
    local data=$RIG_WORK/data status=0 medium share
    rig_build_broken_tool || return 1
    rig_device raw "$data"
    for medium in nor block2mtd; do
        rig_medium "$medium"
        share=$(rig_share "$medium" "$RIG_DIR/scenarios/nor-broken-erase.guest.sh")
        cp "$data/up.bin" "$data/factory.img" "$data/expected.img" "$share/"
        cp "$RIG_BROKEN_TOOL" "$share/broken"
        rig_flash_config "FLASH_SIZE=$((RAW_DISK)) PTN_BASE=$RAW_PTN_BASE" >"$share/config"
        cp "$data/factory.img" "$RIG_WORK/$medium-flash.img"
        rig_guest "$share" "$RIG_WORK/$medium-flash.img" || status=1
        grep '^info: ' "$share/out/guest.log" | sed 's/^info: /    /' || true
    done
    return $status
}
