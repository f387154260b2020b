# SPDX-License-Identifier: Apache-2.0
#
# OpenWrt's own upgrade path drives the tool: OpenWrt's unmodified upgrade scripts
# (../shared/third_party/openwrt) at their real paths on the router, with jshn built from
# libubox's sources (../shared/third_party/libubox) against Debian's libjson-c-dev and fwtool
# from its sources, and the package's hook and settings (packaging/openwrt/files).
#
# raw router (the VR100 on NAND): validate_firmware_image's JSON for a fitting file, a file
# for another model and a tampered file; sysupgrade -T; stage2's RAM root, made by
# switch_to_ramfs under a board platform.sh that assigns RAMFS_COPY_BIN with =, runs the
# tool's -h; do_stage2 IMAGE=/tmp/up.bin installs and reboots, and the next boot runs the new
# layout and flags, every byte as -U leaves them. UBI router (the VR500): the fitting file's
# JSON, then do_stage2, and the next boot's volumes. Skipped, saying why, without the
# third-party sources.

RIG_THIRD_PARTY=${VIREO_THIRD_PARTY_DIR:-$RIG_ROOT/../shared/third_party}

# openwrt_tree DIR: the files the router's root gets, in DIR.
openwrt_tree()
{
    local tree=$1 build=$RIG_BUILD/openwrt base=$RIG_THIRD_PARTY/openwrt/base-files
    mkdir -p "$build"
    # Built in a copy, outside the third-party folder.
    if [ ! -x "$build/jshn" ] || [ ! -x "$build/fwtool" ]; then
        # Each from its own sources: both have a utils.h of their own.
        mkdir -p "$build/src-libubox" "$build/src-fwtool"
        cp "$RIG_THIRD_PARTY"/libubox/*.[ch] "$build/src-libubox/"
        cp "$RIG_THIRD_PARTY"/openwrt/fwtool/src/* "$build/src-fwtool/"
        (cd "$build/src-libubox" &&
            gcc -O2 -o ../jshn jshn.c blob.c blobmsg.c blobmsg_json.c avl.c avl-cmp.c utils.c \
                -I/usr/include/json-c -ljson-c) || return 1
        (cd "$build/src-fwtool" && gcc -O2 -o ../fwtool fwtool.c) || return 1
    fi
    mkdir -p "$tree"
    (cd "$base" && tar -cf - .) | tar -C "$tree" -xf -
    install -D -m 0644 "$RIG_THIRD_PARTY/libubox/sh/jshn.sh" "$tree/usr/share/libubox/jshn.sh"
    rig_copy_program "$build/jshn" /usr/bin/jshn "$tree"
    rig_copy_program "$build/fwtool" /usr/bin/fwtool "$tree"
    install -D -m 0644 "$RIG_ROOT/packaging/openwrt/files/lib/upgrade/vireo_firmware_upgrade.sh" \
        "$tree/lib/upgrade/vireo_firmware_upgrade.sh"
    install -D -m 0600 "$RIG_ROOT/packaging/openwrt/files/etc/config/vireo_firmware_upgrade" \
        "$tree/etc/config/vireo_firmware_upgrade"
    # A reboot that first writes the NAND back to the host, as power-off does.
    install -D -m 0755 "$RIG_DIR/scenarios/openwrt.reboot" "$tree/usr/sbin/reboot"
    # ldd, which OpenWrt's scripts otherwise emulate by running each program with
    # LD_TRACE_LOADED_OBJECTS=1: the router's busybox is static and would run instead.
    mkdir -p "$tree/usr/bin"
    printf '#!/bin/sh\nexec /lib64/ld-linux-x86-64.so.2 --list "$@" 2>/dev/null\n' >"$tree/usr/bin/ldd"
    chmod 0755 "$tree/usr/bin/ldd"
}

scenario_openwrt()
{
    if [ ! -d "$RIG_THIRD_PARTY/openwrt/base-files" ] || [ ! -f "$RIG_THIRD_PARTY/libubox/jshn.c" ]; then
        echo "    SKIP: OpenWrt's scripts or libubox's sources are not in $RIG_THIRD_PARTY"
        return 0
    fi
    local status=0 raw=$RIG_WORK/raw-data ubi=$RIG_WORK/ubi-data share size
    rig_medium nand
    rig_device raw "$raw"
    rig_device ubi "$ubi"

    share=$(rig_share raw "$RIG_DIR/scenarios/openwrt.guest.sh")
    openwrt_tree "$share/root" || { echo "    building jshn or fwtool failed"; return 1; }
    cp "$raw/up.bin" "$raw/other.bin" "$share/"
    size=$(wc -c <"$raw/up.bin")
    rig_tamper "$raw/up.bin" "$share/tampered.bin" $((size - 1000))
    rig_flash_config "FLASH_SIZE=$((RAW_DISK)) PTN_BASE=$RAW_PTN_BASE MODE=default" >"$share/config"
    cp "$raw/factory.img" "$RIG_WORK/raw-flash.img"
    rig_guest "$share" "$RIG_WORK/raw-flash.img" || status=1
    openwrt_json "$share" || status=1
    share=$(rig_share raw-reboot "$RIG_DIR/scenarios/raw.guest.sh")
    cp "$raw/expected.img" "$raw/new.list" "$share/"
    rig_flash_config "FLASH_SIZE=$((RAW_DISK)) PTN_BASE=$RAW_PTN_BASE PHASE=verify" >"$share/config"
    rig_guest "$share" "$RIG_WORK/raw-flash.img" || status=1

    share=$(rig_share ubi "$RIG_DIR/scenarios/openwrt.guest.sh")
    openwrt_tree "$share/root" || return 1
    cp "$ubi/up.bin" "$share/"
    rig_flash_config "FLASH_SIZE=$((UBI_DISK)) PTN_BASE=$UBI_PTN_BASE UBI_ATTACH=ubi:0 MODE=ubi" \
        >"$share/config"
    cp "$ubi/factory.img" "$RIG_WORK/ubi-flash.img"
    rig_guest "$share" "$RIG_WORK/ubi-flash.img" || status=1
    openwrt_json "$share" || status=1
    share=$(rig_share ubi-reboot "$RIG_DIR/scenarios/openwrt-verify.guest.sh")
    cp -r "$ubi/upgraded" "$share/"
    rig_flash_config "FLASH_SIZE=$((UBI_DISK)) PTN_BASE=$UBI_PTN_BASE UBI_ATTACH=ubi:0" \
        >"$share/config"
    rig_guest "$share" "$RIG_WORK/ubi-flash.img" || status=1
    return $status
}

# openwrt_json SHARE: each JSON validate_firmware_image printed, parsed here and held to
# what its file must give: a fitting file valid with the tool's tests passed; another
# model's or a tampered file neither valid nor forceable, the tool's tests failed.
openwrt_json()
{
    local file name status=0
    for file in "$1"/out/validate-*.json; do
        name=${file##*/validate-}
        name=${name%.json}
        echo "    validate_firmware_image $name.bin: $(tr -d '\n\t' <"$file")"
        python3 - "$name" "$file" <<'PY' || status=1
import json, sys
name, path = sys.argv[1], sys.argv[2]
doc = json.load(open(path))
tests = doc["tests"]
if name == "up":
    want = dict(valid=True, forceable=True, match=True, signature=True)
elif name == "other":
    want = dict(valid=False, forceable=False, match=False, signature=True)
else:
    want = dict(valid=False, forceable=False, match=False, signature=False)
got = dict(valid=doc["valid"], forceable=doc["forceable"], match=tests["vireo_device_match"],
           signature=tests["vireo_signature"])
if got != want or not {"fwtool_signature", "fwtool_device_match"} <= tests.keys():
    print(f"    not ok - {name}.bin: {got}, expected {want}")
    sys.exit(1)
PY
    done
    return $status
}
