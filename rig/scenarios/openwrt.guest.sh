# SPDX-License-Identifier: Apache-2.0
# Guest part of the openwrt scenario (MODE=default: the raw router, MODE=ubi: the UBI
# router). OpenWrt's files go to their real paths first; do_stage2 ends the machine.
. /lib/rig.sh
. /rig/config
cp -a /rig/root/. /
cp /rig/*.bin /tmp/

# validate_firmware_image NAME: its JSON for /tmp/NAME.bin, for the host to parse.
validate()
{
    /usr/libexec/validate_firmware_image "/tmp/$1.bin" >"/rig/out/validate-$1.json" \
        2>>/rig/out/validate.log
    expect_value "validate_firmware_image prints its JSON alone for $1.bin" 0 \
        "$(jshn -r "$(cat "/rig/out/validate-$1.json")" >/dev/null 2>&1; echo $?)"
}

if [ "$MODE" = ubi ]; then
    validate up
    jshn -r "$(cat /rig/out/validate-up.json)" | grep -q "json_add_boolean 'allow_backup' 1" &&
        ok "settings can be kept: the target is the backup image" ||
        not_ok "the backup image is the target, yet no backup is allowed"
    # With the primary image the target, the user data copy goes the other way.
    primary=$(ubi_vol_dev 0 extra-para)
    dd if="$primary" of=/tmp/primary.rec bs=65536 status=none
    printf '{"dbootFlag":"1","integerFlag":"1","fwFlag":"GOOD","score":0}\0' >/tmp/low.doc
    { printf '\252\125\331\217\004\351\125\252'; printf '\0\0\0\077'; printf '\0\0\0\0'
      cat /tmp/low.doc; } >/tmp/low.rec
    ubiupdatevol "$primary" /tmp/low.rec
    /usr/libexec/validate_firmware_image /tmp/up.bin 2>/dev/null | grep -q '"allow_backup": false' &&
        ok "no backup is offered when the primary image is the target" ||
        not_ok "a backup is offered that the upgrade would drop"
    ubiupdatevol "$primary" /tmp/primary.rec
else
    validate up
    validate other
    validate tampered
    jshn -r "$(cat /rig/out/validate-up.json)" | grep -q "json_add_boolean 'allow_backup' 1" &&
        ok "settings can be kept: the image does not carry rootfs_data" ||
        not_ok "no backup is allowed for an image that keeps every other partition"
    sysupgrade -T /tmp/up.bin >/rig/out/sysupgrade.log 2>&1
    expect_value "sysupgrade -T accepts the fitting file" 0 $?
    sysupgrade -T /tmp/other.bin >>/rig/out/sysupgrade.log 2>&1
    expect_value "sysupgrade -T refuses another model's file" 1 $?

    # stage2's RAM root, made by OpenWrt's switch_to_ramfs (taken unchanged from stage2) after
    # a board platform.sh that assigns RAMFS_COPY_BIN and RAMFS_COPY_DATA with =; the pivot
    # itself is left out (the router runs from its initramfs, which cannot be pivoted).
    echo "RAMFS_COPY_BIN='/bin/busybox'; RAMFS_COPY_DATA='/etc/sysupgrade.conf'" \
        >/lib/upgrade/platform.sh
    # The settings file the UBI check reads, which the RAM root must hold too.
    mkdir -p /etc/profile.d
    printf "config special_id_support_list\n\tlist special_id '45550000'\n" >/etc/profile.d/profile
    (
        . /lib/functions.sh
        . /lib/functions/system.sh
        RAMFS_COPY_BIN=
        RAMFS_COPY_DATA=
        include /lib/upgrade
        eval "$(sed -n '/^switch_to_ramfs() {/,/^}/p' /lib/upgrade/stage2)"
        supivot() { return 0; }
        switch_to_ramfs >/rig/out/ramfs.log 2>&1
        chroot "$RAM_ROOT" /usr/sbin/vireo_firmware_upgrade -h >/rig/out/ramfs-help.log 2>&1
        echo $? >/tmp/ramfs.status
        for file in /etc/profile.d/profile /etc/config/vireo_firmware_upgrade; do
            [ -e "$file" ] && [ ! -e "$RAM_ROOT$file" ] && echo "$file" >>/tmp/ramfs.missing
        done
    )
    rm -f /lib/upgrade/platform.sh
    expect_value "the tool runs in stage2's RAM root (-h)" 0 "$(cat /tmp/ramfs.status)"
    [ -s /tmp/ramfs.missing ] && not_ok "not in the RAM root: $(cat /tmp/ramfs.missing)" ||
        ok "the RAM root holds the files the upgrade reads"
fi

# The upgrade as stage2 runs it; reboot -f ends the machine.
echo "# do_stage2 IMAGE=/tmp/up.bin" >>/rig/out/stage2.log
IMAGE=/tmp/up.bin /lib/upgrade/do_stage2 >>/rig/out/stage2.log 2>&1
not_ok "do_stage2 returned"
rig_done
