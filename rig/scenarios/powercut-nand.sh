# SPDX-License-Identifier: Apache-2.0
# Power cuts at flash operations of each upgrade road, on the NAND router (nandsim): the tool
# is killed before, after or half-way through its Nth flash-changing operation by the
# preloaded library, and the router classifies what the cut left and retries, in the same
# boot (powercut-nand.guest.sh). The roads are the simulator's, those of the host's sweep
# (scripts/powercut.sh), laid out for the router's flash by vireo_sim_road: raw-moves, raw,
# ubi and rollback at twice their size on the large-page chip (128 KiB erase blocks),
# raw-ubi as they are on the small-page one (16 KiB). The test command runs a stride of at
# least 50 cut points per road (the variant rotating); --sweep every operation in every
# variant. Two routers run at a time.
#
# powercut-nor: the same five roads on the rig's NOR flash (a program only clears bits), at
# their host size (64 KiB erase blocks), with a shorter stride: an even spread of
# RIG_POWERCUT_NOR_POINTS cut points per road, the variant rotating (every operation in every
# variant with --sweep).

RIG_POWERCUT_MIN=50
RIG_POWERCUT_NOR_POINTS=10

# pc_road ROAD [nor]: one router for ROAD; its report in $RIG_WORK/ROAD.report.
pc_road()
{
    local road=$1 data=$RIG_WORK/$1-data share scale dev base size points=$RIG_POWERCUT_MIN spread=0
    case ${2:-}:$road in
    nor:*) rig_medium nor 65536; scale=1 points=$RIG_POWERCUT_NOR_POINTS spread=1 ;;
    *:raw-ubi) rig_medium nand-small; scale=1 ;;
    *) rig_medium nand; scale=2 ;;
    esac
    rm -rf "$data"
    "$RIG_SIM_ROAD" image "$road" "$data" --scale $scale --leb $RIG_LEB || return 1
    # Each UBI device made for this medium, at its home.
    while read -r dev base size; do
        local entries=()
        mapfile -t entries <"$data/ubi$dev.list"
        rig_ubinize "$data/ubi$dev.img" "$size" "${entries[@]}"
        rig_put "$data/factory.img" "$base" "$data/ubi$dev.img"
    done <"$data/homes.list"
    share=$(rig_share "$road" "$RIG_DIR/scenarios/powercut-nand.guest.sh")
    cp "$data/up.bin" "$share/"
    {
        rig_flash_config "$(cat "$data/flash.conf")"
        cat "$data/road.conf"
        echo "ROAD=$road MIN_POINTS=$points SPREAD_ONLY=$spread SWEEP=$RIG_POWERCUT_SWEEP"
    } >"$share/config"
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
    pc_roads nand
}

scenario_powercut_nor()
{
    pc_roads nor
}

# pc_roads nand|nor: every road, two routers at a time, their reports in order.
pc_roads()
{
    local status=0 road pids=()
    local roads=(raw-moves raw raw-ubi ubi rollback)
    for road in "${roads[@]}"; do
        pc_road "$road" "$1" &
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
