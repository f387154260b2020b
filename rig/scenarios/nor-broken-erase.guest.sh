# SPDX-License-Identifier: Apache-2.0
# Guest part of the nor-broken-erase scenario.
. /lib/rig.sh
. /rig/config
cp /rig/up.bin /tmp/
cp /rig/broken /tmp/broken
chmod 0755 /tmp/broken

echo "# broken build: -U -u /tmp/up.bin" >>/rig/out/broken.log
broken=0
/tmp/broken -U -u /tmp/up.bin >>/rig/out/broken.log 2>&1 || broken=$?
if cmp -s /dev/mtd0 /rig/expected.img; then flash="the flash as a good upgrade leaves it"
else flash="the flash other than a good upgrade leaves it"
fi

if [ "$FLASH" != nor ]; then
    echo "info: on $FLASH the build that skips the erase exits $broken, $flash"
    rig_done
fi

[ "$broken" != 0 ] && ok "the build that skips the erase fails on NOR (exit $broken)" ||
    not_ok "the build that skips the erase exits 0 on NOR"
grep -q 'update content failed' /rig/out/broken.log && ok "the failed content write is traced" ||
    not_ok "no content write traced as failed"
case $(flag_of mtd:extra-para) in
BAD:*) ok "the broken build leaves the image flagged off" ;;
*) not_ok "the broken build leaves the flag $(flag_of mtd:extra-para), not BAD" ;;
esac
[ "$flash" = "the flash other than a good upgrade leaves it" ] && ok "$flash" || not_ok "$flash"
echo "info: on nor the build that skips the erase exits $broken, $flash"

# The good build, from the same factory flash.
rmmod rig_mtdparts
flash_erase -q /dev/mtd0 0 0
dd if=/rig/factory.img of=/dev/mtd0 bs=65536 status=none
expect_same "factory flash restored" /dev/mtd0 /rig/factory.img
rig_read_record /dev/mtd0 $((PTN_BASE)) /tmp/ptn.json && rig_table_entries /tmp/ptn.json >/tmp/ptn.list &&
    rig_partitions_up /tmp/ptn.list || not_ok "the factory partitions"
run_tool good -U -u /tmp/up.bin
expect_value "the good build installs on NOR" 0 "$TOOL_STATUS"
expect_same "whole flash after the good build's -U" /dev/mtd0 /rig/expected.img
rig_done
