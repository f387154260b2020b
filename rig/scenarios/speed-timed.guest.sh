# SPDX-License-Identifier: Apache-2.0
# Guest part of the speed scenario on timed flash (the chip's erase, program and read times
# spent by its driver): MODE=default (raw flash) or MODE=ubi. A check of the file first
# warms the emulator up (under TCG the first run of any code pays for its translation, which
# a router never does); the flash is saved just before -U, which is timed once, and again by
# the power-off. The host works out the physical floor from the two.
. /lib/rig.sh
. /rig/config
cp /rig/up.bin /tmp/

# Centiseconds since boot.
now()
{
    cut -d' ' -f1 /proc/uptime | tr -d .
}

# -U seals the file under a key from the kernel's random generator, which on a router that has
# just booted may still be gathering entropy (about a second under the emulator, before -C
# needs none). A router that upgrades has long been up: the wait is not the upgrade's.
head -c 1 /dev/random >/dev/null
if [ "$MODE" = ubi ]; then
    run_tool check -C -w ubi -p 0 -u /tmp/up.bin
else
    run_tool check -C -u /tmp/up.bin
fi
expect_value "-C passes" 0 "$TOOL_STATUS"
# The UBI device's background work (the erase blocks it found empty at attach, formatted;
# those a volume update frees, erased) done: its thread sleeps waiting for work, at three
# looks in a row. SETTLED_AT: the time of the first of them (the thread fell asleep at most
# one look earlier), or of the call when there is no thread.
ubi_settled()
{
    local pid state quiet=0 i=0
    SETTLED_AT=$(now)
    pid=$(grep -l '^ubi_bgt0d$' /proc/[0-9]*/comm 2>/dev/null | head -1 | cut -d/ -f3)
    [ -n "$pid" ] || return 0
    while [ $quiet -lt 3 ] && [ $i -lt 6000 ]; do
        state=$(cut -d')' -f2 "/proc/$pid/stat" | cut -d' ' -f2)
        if [ "$state" = S ]; then
            [ $quiet -eq 0 ] && SETTLED_AT=$(now)
            quiet=$((quiet + 1))
        else
            quiet=0
        fi
        sleep 0.05
        i=$((i + 1))
    done
}

# What the NOR chip did since the last call: "E erases, P bytes programmed".
nor_counts()
{
    local p=/sys/module/rig_nor/parameters
    [ -d $p ] || return 0
    echo "$(cat $p/erased_blocks) erases, $(cat $p/programmed_bytes) bytes programmed"
    echo 0 >$p/erased_blocks
    echo 0 >$p/programmed_bytes
}

ubi_settled
dd if=/dev/mtd0 of=/rig/out/before.img bs=131072 status=none
sync
nor_counts >/dev/null
t0=$(now)
if [ "$MODE" = ubi ]; then
    run_tool upgrade -U -w ubi -p 0 -u /tmp/up.bin
else
    run_tool upgrade -U -u /tmp/up.bin
fi
t1=$(now)
ubi_settled
t2=$SETTLED_AT
expect_value "-U on timed $FLASH" 0 "$TOOL_STATUS"
if [ "$MODE" = ubi ]; then
    expect_value "the volumes hold the upgrade" same \
        "$(items_state /rig/upgraded $(ls /rig/upgraded | sed 's/^/ubi0:/'))"
else
    expect_same "the flash holds the upgrade" /dev/mtd0 /rig/expected.img
fi
# The upgrade's time runs until the flash is idle: UBI erases what a volume update freed
# after the update returns, and that erase is part of the result.
echo "timed $MODE: -U $(((t2 - t0) * 10)) ms, the flash idle $(((t2 - t1) * 10)) ms after -U returned"
counts=$(nor_counts)
[ -n "$counts" ] && echo "timed $MODE chip: $counts"
rig_done
