# SPDX-License-Identifier: Apache-2.0
# Power cuts at flash operations of each upgrade road, on the NAND router (nandsim): the tool
# is killed before, after or half-way through its Nth flash-changing operation by the
# preloaded library, and the router classifies what the cut left and retries, in the same
# boot (powercut-nand.guest.sh). The roads are those of the host's sweep
# (scripts/powercut.sh): raw-moves and raw (the VR100, new and same layout), raw-ubi (the
# VR300), ubi and rollback (the VR500). The test command runs a stride of at least 50 cut
# points per road (the variant rotating); --sweep every operation in every variant. Two
# routers run at a time.

RIG_POWERCUT_MIN=50

# A flash:OFFSET:LENGTH item for each "BASE SIZE" given.
pc_regions()
{
    local pair
    for pair in "$@"; do printf 'flash:%d:%d ' $((${pair% *})) $((${pair#* })); done
}

# pc_config ROAD DATA: the config of ROAD's router, the firmware in DATA.
pc_config()
{
    case $1 in
    raw-moves | raw)
        rig_flash_config "FLASH_SIZE=$((RAW_DISK)) PTN_BASE=$RAW_PTN_BASE"
        echo "FLAG=mtd:extra-para"
        if [ "$1" = raw-moves ]; then
            echo "TOOL_ARGS='-U -u /tmp/up.bin'"
            # partition-table, firmware-info, support-list, BL2, FIP's content at its new
            # place, kernel and rootfs; the moved log and user-config; FIP's old place (erased,
            # then no partition's) and the rest of its new one (the moved old FIP's tail, or
            # erased by a retry that finds the new table).
            echo "CARRIED='$(pc_regions "0x060000 0x20000" "0x0C0000 0x40000" "0x000000 0x20000" \
                "0x660000 0x30800" "0x140000 0x500000")'"
            echo "USER='$(pc_regions "0x100000 0x40000" "0x640000 0x20000")'"
            echo "SPARE='$(pc_regions "0x020000 0x40000" "0x690800 0xF800")'"
            echo "OTHER='$(pc_regions "0x080000 0x20000" "0x6A0000 0x160000")'"
        else
            echo "TOOL_ARGS='-U -u /tmp/same.bin'"
            echo "CARRIED='$(pc_regions "0x0C0000 0x40000" "0x140000 0x500000")'"
            echo "OTHER='$(pc_regions "0x000000 0xA0000" "0x100000 0x40000" "0x640000 0x1C0000")'"
        fi
        ;;
    raw-ubi)
        rig_flash_config "FLASH_SIZE=$((DUAL_DISK)) PTN_BASE=$DUAL_PTN_BASE"
        echo "TOOL_ARGS='-U -u /tmp/up.bin' FLAG=$dual_flag"
        echo "CARRIED='$dual_target' OTHER='$dual_other'"
        ;;
    ubi | rollback)
        rig_flash_config "FLASH_SIZE=$((UBI_DISK)) PTN_BASE=$UBI_PTN_BASE UBI_ATTACH=ubi:0"
        local name other=""
        for name in device-info firmware-info extra-para kernel rootfs rootfs_data log; do
            other="$other ubi0:$name"
        done
        echo "FLAG=ubi0:extra-para.b"
        if [ "$1" = ubi ]; then
            echo "TOOL_ARGS='-U -w ubi -p 0 -u /tmp/up.bin'"
            echo "CARRIED='ubi0:support-list ubi0:firmware-info.b ubi0:kernel.b ubi0:rootfs.b'"
            echo "USER='ubi0:rootfs_data.b ubi0:log.b' OTHER='$other'"
        else
            echo "TOOL_ARGS='-r -p 0'"
            echo "OTHER='$other ubi0:support-list ubi0:firmware-info.b ubi0:kernel.b ubi0:rootfs.b ubi0:rootfs_data.b ubi0:log.b'"
        fi
        ;;
    esac
    echo "ROAD=$1 MIN_POINTS=$RIG_POWERCUT_MIN SWEEP=$RIG_POWERCUT_SWEEP"
}

# pc_road ROAD: one router for ROAD; its report in $RIG_WORK/ROAD.report.
pc_road()
{
    local road=$1 data=$RIG_WORK/$1-data device share
    case $road in
    raw-moves | raw) device=raw; rig_medium nand ;;
    raw-ubi) device=dual; rig_medium nand-small ;;
    *) device=ubi; rig_medium nand ;;
    esac
    rig_device "$device" "$data" >/dev/null
    share=$(rig_share "$road" "$RIG_DIR/scenarios/powercut-nand.guest.sh")
    cp "$data/up.bin" "$share/"
    [ "$road" = raw ] && cp "$data/same.bin" "$share/"
    pc_config "$road" >"$share/config"
    cp "$data/factory.img" "$RIG_WORK/$road-flash.img"
    RIG_BOOT_TIMEOUT=$((RIG_POWERCUT_SWEEP == 1 ? 36000 : 1200))
    {
        rig_guest "$share" "$RIG_WORK/$road-flash.img"
        local status=$?
        grep "^$road: " "$share/out/guest.log" | sed 's/^/    /'
        return $status
    } >"$RIG_WORK/$road.report" 2>&1
}

scenario_powercut_nand()
{
    local status=0 road pids=()
    local roads=(raw-moves raw raw-ubi ubi rollback)
    for road in "${roads[@]}"; do
        pc_road "$road" &
        pids+=($!)
        # Two routers at a time.
        if [ ${#pids[@]} -eq 2 ]; then
            wait "${pids[0]}" || status=1
            pids=("${pids[1]}")
        fi
    done
    for road in "${pids[@]}"; do wait "$road" || status=1; done
    for road in "${roads[@]}"; do cat "$RIG_WORK/$road.report"; done
    return $status
}
