# SPDX-License-Identifier: Apache-2.0
# Guest part of the raw scenario: PHASE=upgrade runs -C and -U on the factory flash,
# PHASE=verify checks the flash booted with the new table.
. /lib/rig.sh
. /rig/config

# Samples the fwFlag of "extra-para" until stopped; prints each change.
watch_flag()
{
    local dev=$1 last="" flag
    while [ ! -f /tmp/stop-watch ]; do
        flag=$(dd if="$dev" bs=128 count=1 status=none | tr -c 'A-Za-z:",{}' ' ' |
               grep -o '"fwFlag":"[A-Z]*"' | cut -d'"' -f4)
        [ "$flag" != "$last" ] && echo "${flag:-unreadable}" && last=$flag
    done
}

if [ "$PHASE" = upgrade ]; then
    # Firmware files live in /tmp, as on the router (the tool maps them shared and
    # writable, which the 9p share does not offer).
    cp /rig/up.bin /rig/other.bin /tmp/
    dd if=/dev/mtd0 of=/tmp/before.img bs=65536 status=none

    run_tool check -C -u /tmp/other.bin
    expect_value "-C refuses a file for another model" 255 "$TOOL_STATUS"
    run_tool check -C -u /tmp/up.bin
    expect_value "-C accepts the two-image file" 0 "$TOOL_STATUS"
    expect_same "-C wrote nothing" /dev/mtd0 /tmp/before.img

    watch_flag "$(mtd_dev extra-para)" >/tmp/flags &
    watcher=$!
    run_tool upgrade -U -u /tmp/up.bin
    touch /tmp/stop-watch
    wait $watcher
    expect_value "-U installs the second image" 0 "$TOOL_STATUS"
    flags=$(tr '\n' ' ' </tmp/flags)
    case $flags in
    "GOOD "*"BAD "*GOOD" ") ok "extra-para went $flags" ;;
    *) not_ok "extra-para went $flags, expected GOOD, BAD, then GOOD" ;;
    esac
    expect_same "whole flash after -U" /dev/mtd0 /rig/expected.img
else
    expect_same "whole flash after the reboot" /dev/mtd0 /rig/expected.img
    while read -r name base size; do
        dev=$(mtd_dev "$name")
        if [ -z "$dev" ]; then
            not_ok "partition $name is missing after the reboot"
            continue
        fi
        n=${dev#/dev/mtd}
        expect_value "$name at $base" "$((base))" "$(cat /sys/class/mtd/mtd$n/offset)"
        dd if=/rig/expected.img of=/tmp/part bs=65536 skip=$((base / 65536)) \
            count=$((size / 65536)) status=none
        expect_same "$name through $dev" "$dev" /tmp/part
        expect_same "$name through /dev/mtdblock$n" "/dev/mtdblock$n" /tmp/part
    done </rig/new.list
fi
rig_done
