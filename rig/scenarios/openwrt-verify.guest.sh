# SPDX-License-Identifier: Apache-2.0
# Guest part of the openwrt scenario, UBI router after do_stage2's reboot: every volume as
# -U -w ubi leaves it, and the flags.
. /lib/rig.sh
expect_volumes "after do_stage2" 0 /rig/upgraded
expect_value "the backup image's flag" GOOD:3 "$(flag_of ubi0:extra-para.b)"
expect_value "the primary image's flag" GOOD:2 "$(flag_of ubi0:extra-para)"
rig_done
