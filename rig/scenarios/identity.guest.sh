# SPDX-License-Identifier: Apache-2.0
# Guest part of the identity scenario.
. /lib/rig.sh
. /rig/config

# The router is the machine asked for, and every program it carries starts there: built for
# it, its libraries and loader all in the initramfs. The preloaded library loads too (the
# loader only warns when it cannot).
expect_value "the router's machine" "$MACHINE" "$(uname -m)"
for prog in /usr/sbin/*; do
    [ -L "$prog" ] && continue # busybox's applets
    case ${prog##*/} in mtd) continue ;; vireo_firmware_upgrade) arg=--help ;; *) arg=--version ;; esac
    if "$prog" $arg >/dev/null 2>/tmp/start.err; then
        ok "${prog##*/} starts"
    else
        not_ok "${prog##*/} does not start: $(head -1 /tmp/start.err)"
    fi
done
LD_PRELOAD=/usr/lib/vireo_flash_preload.so vireo_firmware_upgrade --help >/dev/null 2>/tmp/start.err
expect_value "the preloaded library loads" "" "$(head -1 /tmp/start.err)"

# What the medium reports, as the host made its images for it.
expect_value "mtd0 type on $FLASH" "$MTD_TYPE" "$(cat /sys/class/mtd/mtd0/type)"
expect_value "mtd0 erase block on $FLASH" "$ERASE_SIZE" "$(cat /sys/class/mtd/mtd0/erasesize)"
expect_value "mtd0 write unit on $FLASH" "$WRITESIZE" "$(cat /sys/class/mtd/mtd0/writesize)"

data=$(mtd_dev data)
n=${data#/dev/mtd}
[ -n "$data" ] && ok "partition 'data' is $data" || not_ok "no partition 'data'"
expect_value "mtdN reads the partition's size" $((0x060000)) "$(wc -c <"$data")"
expect_value "sysfs size of mtd$n" $((0x060000)) "$(cat /sys/class/mtd/mtd$n/size)"

# Written through the partition's character device, read through the three other views.
flash_erase -q "$data" 0 0
dd if=/rig/data.bin of="$data" bs=2048 status=none
expect_bytes "mtd$n written, mtd$n read" "$data" 0 /rig/data.bin
expect_bytes "mtd$n written, mtdblock$n read" "/dev/mtdblock$n" 0 /rig/data.bin
expect_bytes "mtd$n written, mtd0 read at the base" /dev/mtd0 0x060000 /rig/data.bin
expect_bytes "mtd$n written, mtdblock0 read at the base" /dev/mtdblock0 0x060000 /rig/data.bin

# Written through the whole flash's block device, read through the partition.
dd if=/dev/zero bs=65536 count=6 2>/dev/null | tr '\0' Z >/tmp/zz
dd if=/tmp/zz of=/dev/mtdblock0 bs=65536 seek=$((0x060000 / 65536)) status=none
sync
expect_bytes "mtdblock0 written, mtd$n read" "$data" 0 /tmp/zz

# Centiseconds since boot.
uptime_cs()
{
    awk '{ printf "%d\n", $1 * 100 }' /proc/uptime
}

if [ "$FLASH" = nor ]; then
    expect_value "mtd$n's type" nor "$(cat /sys/class/mtd/mtd$n/type)"
    # A program only clears bits. 0xF0 over erased bytes, then 0x0F over them (bits to set):
    # refused, the cells keeping old AND new; then 0x30 over 0xF0 (bits cleared only): taken.
    flash_erase -q "$data" 0 1
    printf '\360\360\360\360' >/tmp/f0
    printf '\017\017\017\017' >/tmp/0f
    printf '\060\060\060\060' >/tmp/30
    printf '\000\000\000\000' >/tmp/00
    dd if=/tmp/f0 of="$data" bs=4 seek=1 status=none && ok "0xF0 programmed over erased bytes" ||
        not_ok "0xF0 over erased bytes refused"
    expect_bytes "0xF0 reads back" "$data" 4 /tmp/f0
    if dd if=/tmp/0f of="$data" bs=4 seek=1 status=none 2>/tmp/dd.err; then
        not_ok "0x0F over 0xF0 (bits to set) was taken"
    else
        ok "0x0F over 0xF0 refused: $(head -1 /tmp/dd.err)"
    fi
    expect_bytes "the refused program left old AND new" "$data" 4 /tmp/00
    dd if=/tmp/f0 of="$data" bs=4 seek=2 status=none
    dd if=/tmp/30 of="$data" bs=4 seek=2 status=none && ok "0x30 over 0xF0 (bits cleared) taken" ||
        not_ok "0x30 over 0xF0 (bits cleared) refused"
    expect_bytes "0x30 reads back" "$data" 8 /tmp/30
    head -c 4 /dev/zero | tr '\0' '\377' >/tmp/ff
    expect_bytes "the byte behind is still erased" "$data" 12 /tmp/ff
    flash_erase -q "$data" 0 1
    expect_bytes "an erase sets 0xFF again" "$data" 4 /tmp/ff
    # The times of a slow chip, set while the flash is up: 50 ms per erase block (the six of
    # "data" in one erase) and 4 us per byte programmed (64 KiB in one write).
    params=/sys/module/rig_nor/parameters
    echo 50000 >$params/erase_us
    t0=$(uptime_cs)
    flash_erase -q "$data" 0 0
    took=$(($(uptime_cs) - t0))
    [ $took -ge 29 ] && ok "six erase blocks at 50 ms each took ${took}0 ms" ||
        not_ok "six erase blocks at 50 ms each took ${took}0 ms"
    echo 4000 >$params/program_ns_per_byte
    t0=$(uptime_cs)
    dd if=/rig/data.bin of="$data" bs=65536 count=1 status=none
    took=$(($(uptime_cs) - t0))
    [ $took -ge 26 ] && ok "64 KiB at 4 us per byte took ${took}0 ms" ||
        not_ok "64 KiB at 4 us per byte took ${took}0 ms"
    echo 0 >$params/erase_us
    echo 0 >$params/program_ns_per_byte
fi

# The tool's own reading of the partition table from "/dev/mtd0"'s partition.
ptn=$(mtd_dev partition-table)
dd if="$ptn" of=/tmp/ptn.rec bs=65536 count=1 status=none
head -c "$(wc -c </rig/ptn.rec)" /tmp/ptn.rec >/tmp/ptn.head
expect_same "partition-table partition holds the factory record" /tmp/ptn.head /rig/ptn.rec

# UBI on the "ubi" partition: an empty partition is formatted on attach.
ubiattach -m "$(mtd_index ubi)" -d 0 >/dev/null && ok "ubiattach" || not_ok "ubiattach"
expect_value "UBI interface version" 1 "$(cat /sys/class/ubi/version)"
ubimkvol /dev/ubi0 -N vol -s 262144 >/dev/null && ok "ubimkvol" || not_ok "ubimkvol"
vol=$(ubi_vol_dev 0 vol)
ubiupdatevol "$vol" /rig/vol.bin && ok "ubiupdatevol $vol" || not_ok "ubiupdatevol"
d=/sys/class/ubi/${vol#/dev/}
expect_value "UBI's LEB on $FLASH is the one the host makes images for" "$UBI_LEB" \
    "$(cat "$d/usable_eb_size")"
reserved=$(($(cat "$d/reserved_ebs") * $(cat "$d/usable_eb_size")))
expect_value "volume reads back at its reserved size" "$reserved" "$(wc -c <"$vol")"
cp /rig/vol.bin /tmp/vol.expect
head -c $((reserved - 100000)) /dev/zero | tr '\0' '\377' >>/tmp/vol.expect
expect_same "volume holds the image, then 0xFF" "$vol" /tmp/vol.expect
expect_value "ubi0 is a character device" c "$(stat -c %F /dev/ubi0 | cut -c1)"

# Every module of the router loads into its kernel (version magic, symbol versions: the
# modules built here against Debian's headers among them), but the drivers of other media.
dep=/lib/modules/$(uname -r)/modules.dep
for m in $(sed 's/:.*//; s,.*/,,; s/\.ko$//' "$dep"); do
    case " $FLASH_DRIVERS " in *" $m "*) [ -d "/sys/module/$m" ] || continue ;; esac
    modprobe "$m" 2>/dev/null
    [ -d "/sys/module/$(echo "$m" | tr - _)" ] && ok "module $m loaded" || not_ok "module $m does not load"
done

if [ "$FLASH" = nor ]; then
    # Unloaded, the NOR flash goes away; loaded again it is a fresh, erased chip of the size
    # asked for, and a size that is no whole number of erase blocks is refused.
    ubidetach -d 0 >/dev/null
    rmmod rig_mtdparts
    rmmod rig_nor && ok "rig_nor unloads" || not_ok "rig_nor does not unload"
    [ -e /sys/class/mtd/mtd0 ] && not_ok "mtd0 is still there without rig_nor" ||
        ok "mtd0 went with rig_nor"
    modprobe rig_nor size=1048576 erase_size=131072
    expect_value "the new chip's size" 1048576 "$(cat /sys/class/mtd/mtd0/size)"
    expect_value "the new chip's erase size" 131072 "$(cat /sys/class/mtd/mtd0/erasesize)"
    head -c 1048576 /dev/zero | tr '\0' '\377' >/tmp/erased
    expect_same "the new chip is erased" /dev/mtd0 /tmp/erased
    rmmod rig_nor
    modprobe rig_nor size=100000 erase_size=65536 2>/dev/null &&
        not_ok "a size of 100000 bytes in 64 KiB erase blocks was taken" ||
        ok "a size of 100000 bytes in 64 KiB erase blocks is refused"
fi

rig_done
