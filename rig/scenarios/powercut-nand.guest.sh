# SPDX-License-Identifier: Apache-2.0
# Guest part of the powercut-nand and powercut-nor scenarios: the power cut at chosen flash
# operations of one upgrade road, on nandsim or the rig's NOR flash. Both keep their bytes in
# RAM and a write to them is done when it returns, so the tool killed (SIGKILL, by the
# preloaded library) at operation N leaves exactly the flash a power cut there would. After each cut the router "reboots" in the same
# boot (the partitions of the table the flash holds, UBI detached and scanned again), the
# flash is classified, the same command runs again, and the flash is classified again.
#
# Config: ROAD, TOOL_ARGS, PTN_BASE, UBI_ATTACH; the items ("mtd:NAME", "ubiN:NAME",
# "flash:OFFSET:LENGTH") OTHER (must never change), CARRIED (the image's contents), USER
# (user data the upgrade carries over), SPARE (bytes of the target whose final value does
# not matter: an erased old place, the rest of a partition behind its content) and FLAG
# (the target's flag record); MIN_POINTS, SPREAD_ONLY=1 for the even spread of MIN_POINTS
# alone, and SWEEP=1 for every operation in every variant.
. /lib/rig.sh
. /rig/config
PRELOAD=/usr/lib/vireo_flash_preload.so
cp /rig/*.bin /tmp/

ubi_down()
{
    local d
    for d in $(ls /sys/class/ubi | grep '^ubi[0-9]*$'); do
        ubidetach -d "${d#ubi}" >/dev/null 2>&1
    done
}

ubi_up()
{
    local pair
    for pair in $UBI_ATTACH; do
        ubiattach -m "$(mtd_index "${pair%:*}")" -d "${pair#*:}" >/dev/null 2>&1
    done
}

# The boot loader's view of the flash: the partitions of the table it holds (the old ones
# when it holds none), UBI scanned again.
reboot_flash()
{
    ubi_down
    if rig_read_record /dev/mtd0 $((PTN_BASE)) /tmp/ptn.json 2>/dev/null; then
        rig_table_entries /tmp/ptn.json >/tmp/ptn.new
        cmp -s /tmp/ptn.new /tmp/ptn.list || { mv /tmp/ptn.new /tmp/ptn.list; rig_partitions_up /tmp/ptn.list; }
    fi
    ubi_up
}

restore()
{
    ubi_down
    flash_erase -q /dev/mtd0 0 0
    if [ "$FLASH" = nor ]; then
        dd if=/tmp/factory.img of=/dev/mtd0 bs=65536 status=none
    else
        nandwrite -q -N -k -p /dev/mtd0 /tmp/factory.img
    fi
    reboot_flash
}

id_of()
{
    echo "$1" | tr ':/' '__'
}

# item_read ITEM OUT: the item's bytes, or a failure when they cannot be read.
item_read()
{
    case $1 in
    flash:*)
        local rest=${1#flash:}
        dd if=/dev/mtd0 of="$2" bs=131072 iflag=skip_bytes,count_bytes skip=$((${rest%:*})) \
            count=$((${rest#*:})) status=none
        ;;
    *)
        local dev
        dev=$(item_dev "$1")
        [ -n "$dev" ] && dd if="$dev" of="$2" bs=131072 status=none 2>/dev/null
        ;;
    esac
}

# snapshot DIR: every item as the flash holds it (ITEM.unreadable when it cannot be read).
# The flag volumes of a raw-flash image carrying "ubi" are read through UBI device 4, which
# the router attaches only while it upgrades.
snapshot()
{
    rm -rf "$1"
    mkdir -p "$1"
    local item id
    case $FLAG in ubi4:*) attach_flag_device 2>/dev/null ;; esac
    for item in $OTHER $CARRIED $USER $SPARE $FLAG; do
        id=$(id_of "$item")
        item_read "$item" "$1/$id" || { rm -f "$1/$id"; : >"$1/$id.unreadable"; }
    done
    case $FLAG in ubi4:*) ubidetach -d 4 >/dev/null 2>&1 ;; esac
}

# differs DIR REFERENCE ITEM...: the first item and byte at which DIR differs, or nothing.
differs()
{
    local dir=$1 ref=$2 item id at
    shift 2
    for item in "$@"; do
        id=$(id_of "$item")
        if [ -e "$dir/$id.unreadable" ] || [ -e "$ref/$id.unreadable" ]; then
            [ -e "$dir/$id.unreadable" ] && [ -e "$ref/$id.unreadable" ] && continue
            echo "$item (unreadable)"
            return
        fi
        cmp -s "$dir/$id" "$ref/$id" && continue
        at=$(cmp "$dir/$id" "$ref/$id" 2>&1 | sed -n 's/.*differ: char \([0-9]*\).*/\1/p')
        echo "$item byte $((${at:-1} - 1))"
        return
    done
}

# The flag record of snapshot DIR: "factory", "done", "good" (any other GOOD), or "off".
flag_state()
{
    local id
    id=$(id_of "$FLAG")
    [ -e "$1/$id.unreadable" ] && { echo off; return; }
    rig_read_record "$1/$id" 0 /tmp/flag.now 2>/dev/null || { echo off; return; }
    if cmp -s /tmp/flag.now /tmp/flag.factory; then echo factory
    elif cmp -s /tmp/flag.now /tmp/flag.done; then echo done
    elif tr -d '\0' </tmp/flag.now | grep -q '"fwFlag":"GOOD"'; then echo good
    else echo off
    fi
}

# classify DIR: untouched, off, installed, or "VIOLATION: ...".
classify()
{
    local at
    at=$(differs "$1" /tmp/ref/factory $OTHER)
    [ -n "$at" ] && { echo "VIOLATION: a byte changed where nothing was to be written: $at"; return; }
    case $(flag_state "$1") in
    done)
        at=$(differs "$1" /tmp/ref/installed $CARRIED $USER)
        [ -z "$at" ] && echo installed || echo "VIOLATION: GOOD over a target not installed: $at"
        ;;
    factory)
        at=$(differs "$1" /tmp/ref/factory $CARRIED $USER $SPARE)
        [ -z "$at" ] && echo untouched || echo "VIOLATION: the old GOOD flag over a changed target: $at"
        ;;
    good) echo "VIOLATION: a GOOD flag record the upgrade never writes: $FLAG" ;;
    *) echo off ;;
    esac
}

# run_cut N MODE: the command, cut at operation N (0: uncut, counting into /tmp/ops).
run_cut()
{
    rm -f /tmp/ops
    VIREO_CUT_AT=$1 VIREO_CUT_MODE=$2 VIREO_CUT_LOG=/tmp/ops LD_PRELOAD=$PRELOAD \
        vireo_firmware_upgrade $TOOL_ARGS >/tmp/tool.log 2>&1
}

# The factory flash and, from the uncut run, the installed one.
dd if=/dev/mtd0 of=/tmp/factory.img bs=131072 status=none
snapshot /tmp/ref/factory
rig_read_record "/tmp/ref/factory/$(id_of "$FLAG")" 0 /tmp/flag.factory
run_cut 0 before
status=$?
cp /tmp/ops /tmp/operations
cp /tmp/tool.log /rig/out/uncut.log
reboot_flash
snapshot /tmp/ref/installed
rig_read_record "/tmp/ref/installed/$(id_of "$FLAG")" 0 /tmp/flag.done || : >/tmp/flag.done
total=$(wc -l </tmp/operations)
expect_value "$ROAD: the uncut run" 0 "$status"
expect_value "$ROAD: the uncut run leaves the target" installed "$(classify /tmp/ref/installed)"

# The cut points: every operation whose kind (or target) differs from the one before it, and
# the one before it (not with SPREAD_ONLY), plus an even spread up to MIN_POINTS; with SWEEP,
# every operation.
awk -v min="${MIN_POINTS:-50}" -v all="${SWEEP:-0}" -v spread="${SPREAD_ONLY:-0}" '
    { key[NR] = $2 " " $3 " " $4 }
    END {
        for (n = 1; n <= NR; n++)
            if (all == 1 || (spread != 1 && (n == 1 || key[n] != key[n - 1]))) {
                pick[n] = 1; if (n > 1) pick[n - 1] = 1
            }
        step = NR / min; if (step < 1) step = 1
        for (x = 1; x <= NR; x += step) pick[int(x)] = 1
        for (n = 1; n <= NR; n++) if (pick[n]) print n
    }' /tmp/operations >/tmp/points
# A road with few operations gets them all, in every variant.
if [ "${SWEEP:-0}" = 1 ] || [ "$total" -le "${MIN_POINTS:-50}" ]; then
    variants="before after tear"
else
    variants=rotate
fi

i=0 points=0 untouched=0 off=0 installed=0 violations=0 retried=0 lost=0 refused=0 refusals=""
resumed=0 at_table=0
while read -r n; do
    if [ "$variants" = rotate ]; then
        set -- before after tear
        shift $((i % 3))
        set -- "$1"
    else
        set -- $variants
    fi
    i=$((i + 1))
    for variant in "$@"; do
        restore
        run_cut "$n" "$variant"
        cut=$?
        points=$((points + 1))
        reboot_flash
        snapshot /tmp/cut
        state=$(classify /tmp/cut)
        op=$(sed -n "${n}p" /tmp/operations | cut -d' ' -f2-)
        [ "$cut" = 137 ] || not_ok "$ROAD: cut point $n ($variant, $op): the tool was not cut (exit $cut)"
        case $state in
        untouched) untouched=$((untouched + 1)) ;;
        off) off=$((off + 1)) ;;
        installed) installed=$((installed + 1)) ;;
        *) violations=$((violations + 1)); not_ok "$ROAD: cut point $n ($variant, $op): $state" ;;
        esac
        # Recovery: the same command again on the cut flash.
        retry=0
        vireo_firmware_upgrade $TOOL_ARGS >/tmp/tool.log 2>&1 || retry=$?
        grep -q 'finishing the layout change of an interrupted upgrade' /tmp/tool.log &&
            resumed=$((resumed + 1))
        reboot_flash
        snapshot /tmp/retry
        # Installed again: the new flag over the image's contents. (After a cut that left the
        # target installed, the retry is another upgrade, into the other image.)
        if [ "$retry" = 0 ] && [ "$(flag_state /tmp/retry)" = done ] &&
            [ -z "$(differs /tmp/retry /tmp/ref/installed $CARRIED)" ]; then
            retried=$((retried + 1))
        elif [ -z "$(differs /tmp/retry /tmp/cut $OTHER $CARRIED $USER $SPARE $FLAG)" ] &&
            [ "$state" = off ]; then
            refused=$((refused + 1)) refusals="$refusals $n$(echo "$variant" | cut -c1)"
            grep -q 'Failed to build ptn_table of flash' /tmp/tool.log && at_table=$((at_table + 1))
        else
            not_ok "$ROAD: cut point $n ($variant, $op): the retry did not install (exit $retry)"
        fi
        # Lost: neither where the new layout puts it nor still where the old one had it.
        [ -n "$(differs /tmp/retry /tmp/ref/installed $USER)" ] &&
            [ -n "$(differs /tmp/retry /tmp/ref/factory $USER)" ] && lost=$((lost + 1))
    done
done </tmp/points

[ $refused -gt 0 ] && echo "$ROAD: $refused retries wrote nothing, refusing a record they read first that the cut left unreadable: $((refused - at_table)) stopped at the flag record, $at_table stopped at the partition table, at cut points (b: before, a: after, t: tear):$refusals"
echo "$ROAD: $total flash operations in the uncut run"
echo "$ROAD: $points cut points, $untouched untouched, $off off, $installed installed, $violations violations, $retried/$points retries installed, $lost lost user data, $resumed journal resumed"
[ $((retried + refused)) = "$points" ] || not_ok "$ROAD: retries that did not install"
[ $violations = 0 ] && ok "$ROAD: no violation in $points cut points"
rig_done
