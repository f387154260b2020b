# SPDX-License-Identifier: Apache-2.0
# Helpers of the virtual router, sourced by /init and by the scenarios' guest scripts.
# Everything here reads the devices themselves; nothing trusts the tool's traces.

RIG_FAILS=0

# "/dev/mtdN" of the MTD partition NAME, from /proc/mtd; empty if there is none.
mtd_dev()
{
    awk -v name="\"$1\"" '$4 == name { sub(":", "", $1); print "/dev/" $1; exit }' /proc/mtd
}

mtd_index()
{
    local dev
    dev=$(mtd_dev "$1")
    echo "${dev#/dev/mtd}"
}

mtdblock_dev()
{
    local dev
    dev=$(mtd_dev "$1")
    [ -n "$dev" ] && echo "/dev/mtdblock${dev#/dev/mtd}"
}

# "/dev/ubiD_V" of volume NAME on UBI device D; empty if there is none.
ubi_vol_dev()
{
    local d
    for d in /sys/class/ubi/ubi$1_*; do
        [ -f "$d/name" ] && [ "$(cat "$d/name")" = "$2" ] && { echo "/dev/${d##*/}"; return; }
    done
}

# Lines "NAME BASE SIZE" (decimal) of the partition-table document in FILE. The documents
# the rig writes hold one string member per key, so a flat scan of the pairs is enough.
rig_table_entries()
{
    tr -d ' \t\r\n' <"$1" | grep -o '"[A-Za-z-]*":"[^"]*"' | awk -F'"' '
        tolower($2) == "name" { name = $4 }
        tolower($2) == "base" { base = $4 + 0 }
        tolower($2) == "size" { printf "%s %d %d\n", name, base, $4 + 0 }'
}

# Content of the record partition at byte OFFSET of DEVICE (behind its 16-byte header),
# written to FILE. Fails when the header's magic words are wrong.
rig_read_record()
{
    local dev=$1 off=$2 out=$3 head len
    dd if="$dev" of=/tmp/rec.head bs=16 count=1 iflag=skip_bytes skip="$off" status=none
    head=$(od -An -tx1 /tmp/rec.head | tr -d ' \n')
    case $head in aa55d98f04e955aa*) ;; *) return 1 ;; esac
    len=$((0x$(echo "$head" | cut -c17-24)))
    dd if="$dev" of="$out" bs=4096 iflag=skip_bytes,count_bytes skip=$((off + 16)) \
        count="$len" status=none
}

# The NAND chips nandsim makes, 8 MiB each: a large-page one (2 KiB pages, 128 KiB erase
# blocks) and a small-page one (512-byte pages, 16 KiB erase blocks); software ECC.
nand_chip()
{
    case $1 in
    nand) echo "id_bytes=0xec,0xf1,0x00,0x15 overridesize=6" ;;
    nand-small) echo "id_bytes=0x20,0x75 overridesize=9" ;;
    esac
}

# The router's boot: brings the flash up as /dev/mtd0 and adds the partitions that its
# partition table names, as the boot loader of the real device does.
#   FLASH=mtdram | block2mtd (the virtio disk) | nand | nand-small (nandsim, which keeps its
#   bytes in RAM: FLASH_IMAGE is programmed at boot, every byte at its offset, bad blocks
#   included, and FLASH_SAVE=1 writes the flash back to /rig/out/flash.img at power-off) |
#   nor (the rig's NOR flash in RAM, FLASH_SIZE bytes in ERASE_SIZE blocks: programmed from
#   FLASH_IMAGE and saved with FLASH_SAVE=1 the same way; NOR_PROGRAM_NS nanoseconds per byte
#   programmed and NOR_ERASE_US microseconds per block erased, default 0);
#   NAND_BADBLOCKS="N ..." erase blocks marked bad; NAND_BITFLIPS=N random bit flips per page
#   read (corrected by the ECC); NAND_PARAMS more of nandsim's parameters (the last of a
#   name holds: overridesize=0 gives the chip its own size).
rig_flash_up()
{
    modprobe mtd && modprobe mtdblock || return 1
    case $FLASH in
    mtdram)
        modprobe mtdram total_size=$((FLASH_SIZE / 1024)) erase_size=$((ERASE_SIZE / 1024)) ||
            return 1
        if [ -n "$FLASH_IMAGE" ]; then
            dd if="/rig/$FLASH_IMAGE" of=/dev/mtdblock0 bs=65536 status=none || return 1
        fi
        ;;
    block2mtd)
        modprobe virtio_blk || return 1
        local i=0
        while [ ! -b /dev/vda ] && [ $i -lt 50 ]; do sleep 0.1; i=$((i + 1)); done
        modprobe block2mtd block2mtd=/dev/vda,$((ERASE_SIZE / 1024))KiB || return 1
        ;;
    nor)
        modprobe rig_nor size=$((FLASH_SIZE)) erase_size=$((ERASE_SIZE)) || return 1
        if [ -n "$FLASH_IMAGE" ]; then
            flash_erase -q /dev/mtd0 0 0 &&
                dd if="/rig/$FLASH_IMAGE" of=/dev/mtd0 bs=65536 status=none || return 1
        fi
        # The chip's times from here on: the factory programming of the image is not timed.
        echo "${NOR_PROGRAM_NS:-0}" >/sys/module/rig_nor/parameters/program_ns_per_byte &&
            echo "${NOR_ERASE_US:-0}" >/sys/module/rig_nor/parameters/erase_us || return 1
        ;;
    nand | nand-small)
        local extra=""
        [ -n "$NAND_BADBLOCKS" ] && extra="badblocks=$(echo $NAND_BADBLOCKS | tr ' ' ,)"
        [ -n "$NAND_BITFLIPS" ] && extra="$extra bitflips=$NAND_BITFLIPS"
        [ -n "$NAND_PARAMS" ] && extra="$extra $NAND_PARAMS"
        modprobe nandsim $(nand_chip "$FLASH") $extra || return 1
        if [ -n "$FLASH_IMAGE" ]; then
            nandwrite -q -N -k -p /dev/mtd0 "/rig/$FLASH_IMAGE" || return 1
        fi
        ;;
    esac
    # block2mtd writes into the page cache of /dev/vda: have the flusher write dirty pages
    # out at once (background threshold one page, every 10 ms), so the flash file follows
    # the writes closely as a real chip would; a power cut still loses what is in flight.
    echo 4096 >/proc/sys/vm/dirty_background_bytes
    echo 1 >/proc/sys/vm/dirty_writeback_centisecs
    echo 0 >/proc/sys/vm/dirty_expire_centisecs
    if [ -n "$PTN_BASE" ]; then
        rig_read_record /dev/mtd0 $((PTN_BASE)) /tmp/ptn.json || {
            echo "rig: no partition table at $PTN_BASE"
            return 1
        }
        rig_table_entries /tmp/ptn.json >/tmp/ptn.list
        rig_partitions_up /tmp/ptn.list || return 1
    fi
    modprobe ubi || return 1
    local pair
    for pair in $UBI_ATTACH; do
        ubiattach -m "$(mtd_index "${pair%:*}")" -d "${pair#*:}" >/dev/null || return 1
    done
    return 0
}

# Adds the partitions of LIST ("NAME BASE SIZE" lines) on /dev/mtd0 with the rig's module;
# removing the module first takes away those of an earlier table.
rig_partitions_up()
{
    local layout="" name base size
    while read -r name base size; do
        layout="$layout${layout:+,}$base:$size:$name"
    done <"$1"
    rmmod rig_mtdparts 2>/dev/null
    modprobe rig_mtdparts layout="$layout"
}

# At power-off: the flash of a nandsim or NOR router back to the host, when the scenario asks.
rig_flash_down()
{
    case $FLASH in nand | nand-small | nor) ;; *) return 0 ;; esac
    [ "$FLASH_SAVE" = 1 ] || return 0
    dd if=/dev/mtd0 of=/rig/out/flash.img bs=131072 status=none
}

ok()
{
    echo "ok - $*"
}

not_ok()
{
    echo "not ok - $*"
    RIG_FAILS=$((RIG_FAILS + 1))
}

# expect_bytes LABEL DEVICE OFFSET FILE: the bytes of DEVICE from OFFSET equal FILE.
expect_bytes()
{
    local label=$1 dev=$2 off=$3 file=$4 len
    len=$(wc -c <"$file")
    dd if="$dev" of=/tmp/extract bs=65536 iflag=skip_bytes,count_bytes skip=$((off)) \
        count="$len" status=none
    if cmp -s /tmp/extract "$file"; then
        ok "$label"
    else
        not_ok "$label: $dev at $off differs from ${file##*/} ($(cmp /tmp/extract "$file" 2>&1 | head -1))"
    fi
}

# expect_same LABEL A B: two files or devices hold the same bytes.
expect_same()
{
    if cmp -s "$2" "$3"; then ok "$1"; else not_ok "$1: $(cmp "$2" "$3" 2>&1 | head -1)"; fi
}

# expect_value LABEL EXPECTED ACTUAL
expect_value()
{
    if [ "$2" = "$3" ]; then ok "$1"; else not_ok "$1: got $3, expected $2"; fi
}

# Runs the tool with its output in /rig/out/NAME.log and sets TOOL_STATUS.
run_tool()
{
    local log=$1
    shift
    echo "# vireo_firmware_upgrade $*" >>"/rig/out/$log.log"
    TOOL_STATUS=0
    vireo_firmware_upgrade "$@" >>"/rig/out/$log.log" 2>&1 || TOOL_STATUS=$?
}

rig_done()
{
    echo "# $RIG_FAILS failed"
    exit $((RIG_FAILS > 0))
}

# expect_volumes LABEL UBI DIR [NAME...]: each named volume of UBI device UBI (all the
# volumes in DIR when none is named) reads back as DIR/NAME.
expect_volumes()
{
    local label=$1 ubi=$2 dir=$3 name dev
    shift 3
    [ $# -gt 0 ] || set -- $(ls "$dir")
    for name in "$@"; do
        dev=$(ubi_vol_dev "$ubi" "$name")
        if [ -z "$dev" ]; then
            not_ok "$label: no volume $name on ubi$ubi"
        else
            expect_same "$label: $name" "$dev" "$dir/$name"
        fi
    done
}

# item_dev ITEM: the device of "mtd:NAME" or "ubiN:NAME".
item_dev()
{
    case $1 in
    mtd:*) mtd_dev "${1#mtd:}" ;;
    ubi*:*) local u=${1%%:*}; ubi_vol_dev "${u#ubi}" "${1#*:}" ;;
    esac
}

# items_state DIR ITEM...: "same" when every item reads back as DIR/NAME, else "differs".
items_state()
{
    local dir=$1 item dev
    shift
    for item in "$@"; do
        dev=$(item_dev "$item")
        [ -n "$dev" ] && cmp -s "$dev" "$dir/${item#*:}" || { echo differs; return; }
    done
    echo same
}

# flag_of ITEM: "FLAG:SCORE" of the flag record in ITEM, or "unreadable".
flag_of()
{
    local dev
    dev=$(item_dev "$1")
    [ -n "$dev" ] && rig_read_record "$dev" 0 /tmp/flag.json 2>/dev/null || { echo unreadable; return; }
    local flag score
    flag=$(tr -d '\0' </tmp/flag.json | grep -o '"fwFlag":"[A-Z]*"' | cut -d'"' -f4)
    score=$(tr -d '\0' </tmp/flag.json | grep -o '"score":-*[0-9]*' | cut -d: -f2)
    echo "${flag:-none}:${score:-none}"
}

# Attaches "extra-para-ubi" as UBI device 4, where the raw-flash upgrade keeps the flags of
# images that carry "ubi", unless it is attached already (a failed upgrade leaves it so).
attach_flag_device()
{
    [ -e /sys/class/ubi/ubi4 ] || ubiattach -m "$(mtd_index extra-para-ubi)" -d 4 >/dev/null
}
