# SPDX-License-Identifier: Apache-2.0
# Guest part of the large-move scenario: -U moving 48 MiB on a 128 MiB NAND chip, with the
# preloaded library counting the flash operations and probing the private memory; the flash
# against /rig/expected.img; then the factory flash again, a cut in the middle of the moves
# and the same command, which finishes the layout change from the journal and installs.
. /lib/rig.sh
. /rig/config
PRELOAD=/usr/lib/vireo_flash_preload.so
cp /rig/up.bin /tmp/
size=$(wc -c </tmp/up.bin)
# 4 MiB and the seals (8 bytes for each 4 KiB of the file).
budget=$((4096 + size / 4096 * 8 / 1024))

# upgrade LOG CUT: -U, cut at flash operation CUT (0: none, the operations logged to
# /tmp/ops) with the private memory probed; sets TOOL_STATUS and PEAK (KiB).
upgrade()
{
    local log=/rig/out/$1.log pid
    rm -f /tmp/ops /tmp/anon
    echo "# vireo_firmware_upgrade -U -u /tmp/up.bin (cut at $2)" >>"$log"
    VIREO_CUT_AT=$2 VIREO_CUT_MODE=tear VIREO_CUT_LOG=/tmp/ops VIREO_ANON_LOG=/tmp/anon \
        LD_PRELOAD=$PRELOAD vireo_firmware_upgrade -U -u /tmp/up.bin >>"$log" 2>&1 &
    pid=$!
    TOOL_STATUS=0
    wait $pid 2>/dev/null || TOOL_STATUS=$?
    PEAK=$(awk -v pid=$pid '$1 == pid { print $2 }' /tmp/anon 2>/dev/null)
}

t0=$(date +%s)
upgrade upgrade 0
t1=$(date +%s)
expect_value "-U moving 48 MiB" 0 "$TOOL_STATUS"
if grep -q 'layout change is not protected against a power cut' /rig/out/upgrade.log; then
    not_ok "the moves were made without the journal"
else
    ok "the moves were made under the journal"
fi
echo "memory: -U moving 48 MiB, peak RssAnon ${PEAK:-?} KiB (at most $budget)"
[ "${PEAK:-0}" -gt 0 ] && [ "$PEAK" -le $budget ] && ok "no move is held in memory" ||
    not_ok "-U peaked at ${PEAK:-no} KiB of private memory (at most $budget)"
expect_same "whole flash after -U" /dev/mtd0 /rig/expected.img
cp /tmp/ops /tmp/operations
total=$(wc -l </tmp/operations)
t2=$(date +%s)

# The cut, three quarters of the way: the staging (48 MiB copied into the free flash) makes
# about the first half of the operations, the moves (48 MiB copied back out) the second.
restore()
{
    flash_erase -q /dev/mtd0 0 0
    nandwrite -q -N -k -p /dev/mtd0 "/rig/$FLASH_IMAGE"
    rig_partitions_up /tmp/ptn.list
}
rig_read_record /rig/"$FLASH_IMAGE" $((PTN_BASE)) /tmp/ptn.json && rig_table_entries /tmp/ptn.json >/tmp/ptn.list
restore
n=$((total * 3 / 4))
upgrade cut "$n"
expect_value "the tool cut at operation $n of $total ($(sed -n "${n}p" /tmp/operations | cut -d' ' -f2-))" \
    137 "$TOOL_STATUS"
# The router comes up with the table the flash holds.
rig_read_record /dev/mtd0 $((PTN_BASE)) /tmp/ptn.now && rig_table_entries /tmp/ptn.now >/tmp/ptn.list
rig_partitions_up /tmp/ptn.list
run_tool retry -U -u /tmp/up.bin
expect_value "the retry after the cut" 0 "$TOOL_STATUS"
if grep -q 'finishing the layout change of an interrupted upgrade' /rig/out/retry.log; then
    ok "the retry finished the layout change from the journal"
else
    not_ok "the retry found no journal"
fi
# The cut fell between the first move and the last: the retry left a move it found recorded
# where it was and made the others.
if grep -q 'is same as old' /rig/out/retry.log && grep -q 'moved from' /rig/out/retry.log; then
    ok "the retry made only the moves the journal had not recorded"
else
    not_ok "the cut did not fall between the moves"
fi
expect_same "whole flash after the cut and the retry" /dev/mtd0 /rig/expected.img
t3=$(date +%s)
echo "time: -U ${total} flash operations in $((t1 - t0)) s; checked in $((t2 - t1)) s; cut and retry in $((t3 - t2)) s"
rig_done
