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

if [ "$MODE" = ubi ]; then
    run_tool check -C -w ubi -p 0 -u /tmp/up.bin
else
    run_tool check -C -u /tmp/up.bin
fi
expect_value "-C passes" 0 "$TOOL_STATUS"
# UBI formats the empty erase blocks it found at attach in the background: let it finish,
# so that the flash saved here is the one -U starts from.
sleep 1
dd if=/dev/mtd0 of=/rig/out/before.img bs=131072 status=none
sync
t0=$(now)
if [ "$MODE" = ubi ]; then
    run_tool upgrade -U -w ubi -p 0 -u /tmp/up.bin
else
    run_tool upgrade -U -u /tmp/up.bin
fi
t1=$(now)
expect_value "-U on timed $FLASH" 0 "$TOOL_STATUS"
if [ "$MODE" = ubi ]; then
    expect_value "the volumes hold the upgrade" same \
        "$(items_state /rig/upgraded $(ls /rig/upgraded | sed 's/^/ubi0:/'))"
else
    expect_same "the flash holds the upgrade" /dev/mtd0 /rig/expected.img
fi
echo "timed $MODE: -U $(((t1 - t0) * 10)) ms"
rig_done
