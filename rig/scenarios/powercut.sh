# SPDX-License-Identifier: Apache-2.0
# Power cuts, the real thing: the flash is a block2mtd device over a host file; the whole VM
# is killed at points spread over an upgrade, so whatever the guest had not yet written is
# lost, and the router is booted again on the same flash file. Afterwards the running
# image's flags, score and contents must be untouched and the target image either flagged
# off, untouched, or completely installed.
#
# powercut-raw: raw flash with an image carrying "ubi" (flags in UBI device 4);
# powercut-ubi: the UBI work mode. RIG_CUTS points each (4; 20 with --sweep).

scenario_powercut_raw()
{
    local data=$RIG_WORK/data
    rig_device dual "$data"
    cat >"$data/config" <<CONFIG
$(rig_flash_config "FLASH_SIZE=$((DUAL_DISK)) PTN_BASE=$DUAL_PTN_BASE")
TOOL_ARGS="-U -u /tmp/up.bin"
OTHER="$dual_other" TARGET="$dual_target" FLAG="$dual_flag" FACTORY_FLAG=GOOD:1 DONE_FLAG=GOOD:3
CONFIG
    powercut_run "$data"
}

scenario_powercut_ubi()
{
    local data=$RIG_WORK/data
    rig_device ubi "$data"
    local other="" target="" name
    for name in device-info firmware-info extra-para kernel rootfs rootfs_data log; do
        other="$other ubi0:$name"
    done
    for name in firmware-info.b support-list kernel.b rootfs.b rootfs_data.b log.b; do
        target="$target ubi0:$name"
    done
    cat >"$data/config" <<CONFIG
$(rig_flash_config "FLASH_SIZE=$((UBI_DISK)) PTN_BASE=$UBI_PTN_BASE")
UBI_ATTACH=ubi:0 TOOL_ARGS="-U -w ubi -p 0 -u /tmp/up.bin"
OTHER="$other" TARGET="$target" FLAG=ubi0:extra-para.b FACTORY_FLAG=GOOD:1 DONE_FLAG=GOOD:3
CONFIG
    powercut_run "$data"
}

# powercut_boot NAME PHASE [CUT_MS]: one VM on $RIG_WORK/flash.img. The verify phase
# prints the state the flash was left in and fails on a broken invariant.
powercut_boot()
{
    local share
    share=$(rig_share "$1" "$RIG_DIR/scenarios/powercut.guest.sh")
    cp -r "$data/up.bin" "$data/factory" "$data/upgraded" "$share/"
    { cat "$data/config"; echo "PHASE=$2"; } >"$share/config"
    if [ "$2" = upgrade ]; then
        rig_boot_cut "$share" "$RIG_WORK/flash.img" "${3:-}"
    else
        rig_boot "$share" "$RIG_WORK/flash.img" || true
        POWERCUT_STATE=$(cat "$share/out/state" 2>/dev/null || echo "no state (console: $share/console.log)")
        # UBI rewrites its volume table (a new copy, then the old one erased) around every
        # volume update. The page cache writes block2mtd's pages back in its own order, so a
        # cut can find the old copies erased on the disk and the new ones not yet there: the
        # device then does not attach. The tool never writes that table; a flash, which does
        # not reorder, cannot end so (the NAND sweep has the same cuts without a cache).
        if [ ! -f "$share/out/state" ] &&
            grep -q "ubi_read_volume_table.*the layout volume was not found" "$share/console.log"; then
            POWERCUT_STATE="medium: UBI's volume table lost to the page cache's write-back order"
        fi
        grep '^not ok' "$share/out/guest.log" 2>/dev/null | sed 's/^/      /'
        case $POWERCUT_STATE in untouched* | off* | installed* | medium:*) return 0 ;; esac
        return 1
    fi
}

powercut_run()
{
    local data=$1 status=0 i cut states=""
    cp "$data/factory.img" "$RIG_WORK/flash.img"
    powercut_boot calibrate upgrade || return 1
    local span=$RIG_UPGRADE_MS first=${RIG_FIRST_WRITE_MS:-0}
    powercut_boot calibrate-verify verify || status=1
    echo "    uncut upgrade: ${span} ms, first flash write at ${first} ms, left the flash $POWERCUT_STATE"
    case $POWERCUT_STATE in installed*) ;; *) status=1 ;; esac
    # A fifth of the points fall before the first write (the checks), the rest spread
    # evenly over the writing.
    local early=$(((RIG_CUTS + 4) / 5)) late
    late=$((RIG_CUTS - early))
    for i in $(seq 1 "$RIG_CUTS"); do
        if [ "$i" -le $early ]; then
            cut=$((first * (2 * i - 1) / (2 * early)))
        else
            cut=$((first + (span - first) * (2 * (i - early) - 1) / (2 * late)))
        fi
        cp "$data/factory.img" "$RIG_WORK/flash.img"
        powercut_boot "cut-$i" upgrade "$cut" || { status=1; continue; }
        local how=$RIG_CUT
        powercut_boot "cut-$i-verify" verify || status=1
        printf '    cut %2d/%d at %5d ms (%3d%%, %s): %s\n' "$i" "$RIG_CUTS" "$cut" \
            $((cut * 100 / span)) "$how" "$POWERCUT_STATE"
        states="$states ${POWERCUT_STATE%% *}"
    done
    echo "    $RIG_CUTS cut points:$(echo $states | tr ' ' '\n' | sort | uniq -c |
        awk '{ printf " %s %s", $1, $2 }')"
    return $status
}
