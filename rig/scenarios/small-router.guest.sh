# SPDX-License-Identifier: Apache-2.0
# Guest part of the small-router scenario. The tool's private memory (RssAnon) is sampled
# while each command runs: the file's own pages are not in it, a copy of the file would be.
. /lib/rig.sh

cp /rig/big.bin /tmp/up.bin
size=$(wc -c </tmp/up.bin)
echo "memory: $(awk '/^MemTotal:/ { print int($2 / 1024) }' /proc/meminfo) MiB in all, $(awk '/^MemAvailable:/ { print int($2 / 1024) }' /proc/meminfo) MiB available with the $((size >> 20)) MiB firmware file in /tmp"
# 4 MiB and the seals (8 bytes for each 4 KiB of the file).
budget=$((4096 + size / 4096 * 8 / 1024))

# run_watched NAME ARGS...: run_tool, with the largest RssAnon seen in PEAK (KiB).
run_watched()
{
    local log=$1 pid
    shift
    echo "# vireo_firmware_upgrade $*" >>"/rig/out/$log.log"
    vireo_firmware_upgrade "$@" >>"/rig/out/$log.log" 2>&1 &
    pid=$!
    PEAK=0
    while kill -0 $pid 2>/dev/null; do
        now=$(awk '/^RssAnon:/ { print $2 }' /proc/$pid/status 2>/dev/null)
        [ -n "$now" ] && [ "$now" -gt "$PEAK" ] && PEAK=$now
        usleep 5000
    done
    TOOL_STATUS=0
    wait $pid || TOOL_STATUS=$?
    echo "memory: -${1#-} ${2:-} $3 peak RssAnon $PEAK KiB (at most $budget)"
}

run_watched check -C -w ubi -p 0 -u /tmp/up.bin
expect_value "-C -w ubi" 0 "$TOOL_STATUS"
[ "$PEAK" -gt 0 ] && [ "$PEAK" -le $budget ] && ok "-C -w ubi holds no copy of the file" ||
    not_ok "-C -w ubi peaked at $PEAK KiB of private memory"
run_watched upgrade -U -w ubi -p 0 -u /tmp/up.bin
expect_value "-U -w ubi" 0 "$TOOL_STATUS"
[ "$PEAK" -gt 0 ] && [ "$PEAK" -le $budget ] && ok "-U -w ubi holds no copy of the file" ||
    not_ok "-U -w ubi peaked at $PEAK KiB of private memory"
expect_volumes "after -U" 0 /rig/upgraded
rig_done
