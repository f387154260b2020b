# SPDX-License-Identifier: Apache-2.0
# Guest part of the raw-ubi scenario.
. /lib/rig.sh
. /rig/config
cp /rig/up.bin /tmp/

run_tool check -C -u /tmp/up.bin
expect_value "-C accepts the VR300 image" 0 "$TOOL_STATUS"
run_tool upgrade -U -u /tmp/up.bin
expect_value "-U" 0 "$TOOL_STATUS"
[ -e /sys/class/ubi/ubi4 ] && not_ok "ubi4 is still attached after -U" || ok "ubi4 detached after -U"

attach_flag_device
for item in $OTHER $TARGET $FLAG; do
    expect_same "${item#*:}" "$(item_dev "$item")" "/rig/upgraded/${item#*:}"
done
expect_value "backup flag" GOOD:3 "$(flag_of "$FLAG")"
expect_value "primary flag" GOOD:2 "$(flag_of ubi4:extra-para)"
rig_done
