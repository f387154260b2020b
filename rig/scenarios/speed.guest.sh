# SPDX-License-Identifier: Apache-2.0
# Guest part of the speed scenario: MODE=default (raw flash) or MODE=ubi. A round restores
# the factory flash, times -U, checks its result, times mtd-utils making the same writes and
# checks theirs. The first round only warms up (under the emulator the first run of any code
# pays for its translation, which a router never does); the medians of three more are printed.
. /lib/rig.sh
. /rig/config
cp /rig/up.bin /tmp/

# Centiseconds since boot.
now()
{
    cut -d' ' -f1 /proc/uptime | tr -d .
}

restore()
{
    if [ "$MODE" = ubi ]; then
        ubidetach -d 0 >/dev/null
        flash_erase -q "$(mtd_dev ubi)" 0 0
        nandwrite -q -k -p "$(mtd_dev ubi)" /rig/ubi.img
        ubiattach -m "$(mtd_index ubi)" -d 0 >/dev/null
    else
        flash_erase -q /dev/mtd0 0 0
        nandwrite -q -N -k -p /dev/mtd0 /rig/factory.img
    fi
    sync
}

upgrade()
{
    if [ "$MODE" = ubi ]; then
        run_tool upgrade -U -w ubi -p 0 -u /tmp/up.bin
    else
        run_tool upgrade -U -u /tmp/up.bin
    fi
}

# The same writes with mtd-utils: ubiupdatevol of every volume -U writes or copies, or
# flash_erase and nandwrite of every region of the flash it changes.
utilities()
{
    if [ "$MODE" = ubi ]; then
        for name in support-list firmware-info.b kernel.b rootfs.b extra-para.b; do
            ubiupdatevol "$(ubi_vol_dev 0 "$name")" "/rig/files/$name" || return 1
        done
        for name in rootfs_data log; do
            dd if="$(ubi_vol_dev 0 "$name")" of=/tmp/copy bs=65536 status=none
            ubiupdatevol "$(ubi_vol_dev 0 "$name.b")" /tmp/copy || return 1
        done
    else
        local peb first count file
        peb=$(cat /sys/class/mtd/mtd0/erasesize)
        while read -r first count file; do
            flash_erase -q /dev/mtd0 $((first * peb)) "$count" || return 1
            nandwrite -q -k -p -s $((first * peb)) /dev/mtd0 "/rig/$file" || return 1
        done </rig/regions
    fi
}

installed()
{
    if [ "$MODE" = ubi ]; then
        [ "$(items_state /rig/upgraded $(ls /rig/upgraded | sed 's/^/ubi0:/'))" = same ]
    else
        cmp -s /dev/mtd0 /rig/expected.img
    fi
}

median()
{
    tr ' ' '\n' | sed '/^$/d' | sort -n | sed -n 2p
}

tools="" utils=""
for round in 0 1 2 3; do
    restore
    t0=$(now)
    upgrade
    t1=$(now)
    [ "$TOOL_STATUS" = 0 ] && installed || { not_ok "-U in round $round (exit $TOOL_STATUS)"; continue; }
    t2=$(now)
    utilities || not_ok "mtd-utils in round $round"
    t3=$(now)
    installed || not_ok "the flash after mtd-utils in round $round"
    [ $round = 0 ] && continue
    tools="$tools $(((t1 - t0) * 10))" utils="$utils $(((t3 - t2) * 10))"
done
[ "$RIG_FAILS" = 0 ] && ok "-U and mtd-utils leave the same flash, in every round"
tool=$(echo "$tools" | median) util=$(echo "$utils" | median)
what="flash_erase + nandwrite of $(wc -l </rig/regions 2>/dev/null) regions"
[ "$MODE" = ubi ] && what="ubiupdatevol of 7 volumes"
echo "speed $MODE: -U $tool ms ($tools ), $what $util ms ($utils ), ratio $(awk "BEGIN { printf \"%.2f\", $tool / $util }")x"
rig_done
