# SPDX-License-Identifier: Apache-2.0
# Host-side helpers of the scenarios: record documents, flash images, firmware files and
# expected device contents. Sourced by run.sh.

# rig_be32 N: N as four big-endian bytes.
rig_be32()
{
    printf "$(printf '\\%03o\\%03o\\%03o\\%03o' $(($1 >> 24 & 255)) $(($1 >> 16 & 255)) \
        $(($1 >> 8 & 255)) $(($1 & 255)))"
}

# rig_record OUT [LEN]: reads a document on standard input and writes it to OUT behind the
# 16-byte content header. LEN is the header's content length (default: the document's).
rig_record()
{
    local out=$1 doc
    doc=$(mktemp)
    cat >"$doc"
    local len=${2:-$(wc -c <"$doc")}
    { printf '\252\125\331\217\004\351\125\252'; rig_be32 "$len"; printf '\0\0\0\0'
      cat "$doc"; } >"$out"
    rm -f "$doc"
}

# rig_blank FILE SIZE: an erased flash image (all 0xFF).
rig_blank()
{
    head -c "$(($2))" /dev/zero | tr '\0' '\377' >"$1"
}

# rig_put FILE OFFSET SRC: writes SRC into FILE at byte OFFSET.
rig_put()
{
    dd if="$3" of="$1" bs=65536 seek="$(($2))" oflag=seek_bytes conv=notrunc status=none
}

# rig_put_units FILE DIR NAME:OFFSET...: each DIR/NAME written into FILE at OFFSET as the tool
# writes a partition's content: in 2048-byte units, the last one padded with 0xFF.
rig_put_units()
{
    local file=$1 dir=$2 pair size
    shift 2
    for pair in "$@"; do
        cp "$dir/${pair%:*}" "$dir/padded"
        size=$(wc -c <"$dir/padded")
        rig_pad "$dir/padded" $(((size + 2047) / 2048 * 2048))
        rig_put "$file" "${pair#*:}" "$dir/padded"
    done
    rm -f "$dir/padded"
}

# rig_get FILE OFFSET LEN OUT: the LEN bytes of FILE at OFFSET.
rig_get()
{
    dd if="$1" of="$4" bs=65536 skip="$(($2))" count="$(($3))" iflag=skip_bytes,count_bytes \
        status=none
}

# rig_random OUT SIZE SEED: reproducible pseudo-random bytes.
rig_random()
{
    # openssl ends on SIGPIPE when head has enough.
    { openssl enc -aes-128-ctr -pass "pass:$3" -nosalt -pbkdf2 -in /dev/zero 2>/dev/null || true; } |
        head -c "$(($2))" >"$1"
}

# rig_table_json DISK_SIZE "NAME BASE SIZE" ...: a partition-table document, one member per
# line, numbers in the tool's own "0x%08X" form.
rig_table_json()
{
    local disk=$1 sep="" name base size
    shift
    printf '{\n\t"disk-size":\t"0x%08X",\n\t"partition-table":\t[' "$(($disk))"
    for entry in "$@"; do
        read -r name base size <<<"$entry"
        printf '%s{\n\t\t\t"name":\t"%s",\n\t\t\t"base":\t"0x%08X",\n\t\t\t"size":\t"0x%08X",\n\t\t\t"attr":\t"0x00000000"\n\t\t}' \
            "$sep" "$name" "$(($base))" "$(($size))"
        sep=", "
    done
    printf ']\n}'
}

# rig_device_info MODEL SPECIAL_ID: a device-info document.
rig_device_info()
{
    cat <<DOC
{"manufacturer_name":"Vireo","manufacturer_full_name":"Vireo Networks","manufacturer_url":"https://vireo.example",
"model_name":"$1","model_full_name":"$1 router","model_id":"0001","model_version":"1.0","region":"EU",
"special_id":"$2","flash_version":"00000000","hw_id":"HW01","oem_id":"OEM01","public_key":"none","license_key":"none"}
DOC
}

rig_firmware_info()
{
    printf '{"software-version":"%s","firmware-id":"%s"}' "$1" "$2"
}

# The two flag documents the tool writes.
rig_flag_doc()
{
    case $1 in
    on) printf '{"dbootFlag":"1","integerFlag":"1","fwFlag":"GOOD","score":%d}' "$2" ;;
    off) printf '{"dbootFlag":"0","integerFlag":"0","fwFlag":"BAD","score":%d}' "$2" ;;
    esac
}

# rig_flag_overlay FILE on|off SCORE EXTRA: writes a flag record over the start of FILE
# as the tool does: header, document, its NUL byte. EXTRA is 1 when the header's length
# counts the NUL byte (UBI flag volumes) and 0 when it does not (raw "extra-para").
rig_flag_overlay()
{
    local file=$1 rec
    rec=$(mktemp)
    local n
    n=$(rig_flag_doc "$2" "$3" | wc -c)
    { rig_flag_doc "$2" "$3"; printf '\0'; } | rig_record "$rec" $((n + $4))
    rig_put "$file" 0 "$rec"
    rm -f "$rec"
}

# rig_pad FILE SIZE: extends FILE with 0xFF to SIZE bytes.
rig_pad()
{
    local have
    have=$(wc -c <"$1")
    [ "$have" -lt "$(($2))" ] && head -c $(($2 - have)) /dev/zero | tr '\0' '\377' >>"$1"
    return 0
}

# rig_pack MANIFEST OUT: a firmware file signed with the test key.
rig_pack()
{
    # Without its progress lines for large files.
    "$RIG_PACK" build "$1" --key "$RIG_ROOT/keys/vireo_test_key_DO_NOT_SHIP.pem" -o "$2" \
        >/dev/null 2> >(grep -Ev ': (writing|hashing) [0-9]+ of [0-9]+ MiB$' >&2)
}

# rig_medium MEDIUM: the flash the next device is made for, and its UBI geometry: erase block
# (RIG_PEB), minimal I/O unit and sub-page (RIG_MIN_IO, RIG_SUB_PAGE) and the room a LEB
# leaves after UBI's two headers (RIG_LEB), as the kernel's UBI finds them on that medium.
#   block2mtd, mtdram: 64 KiB erase blocks, byte-wise writes;
#   nand: nandsim's large-page chip, 2 KiB pages written in 512-byte sub-pages, 128 KiB blocks;
#   nand-small: its small-page chip, 512-byte pages in 256-byte sub-pages, 16 KiB blocks;
#   nor [ERASE]: the rig's NOR flash, byte-wise writes that only clear bits, erase blocks of
#   ERASE bytes (131072, the default, or 65536).
rig_medium()
{
    RIG_MEDIUM=$1
    case $1 in
    block2mtd | mtdram) RIG_PEB=65536 RIG_MIN_IO=1 RIG_SUB_PAGE=1 ;;
    nor) RIG_PEB=${2:-131072} RIG_MIN_IO=1 RIG_SUB_PAGE=1 ;;
    nand) RIG_PEB=131072 RIG_MIN_IO=2048 RIG_SUB_PAGE=512 ;;
    nand-small) RIG_PEB=16384 RIG_MIN_IO=512 RIG_SUB_PAGE=256 ;;
    *) echo "rig: unknown medium $1" >&2; return 1 ;;
    esac
    # The EC header takes the first sub-page (64 bytes with byte-wise writes), the VID
    # header the next; data start at the next minimal I/O unit.
    local vid=$((RIG_SUB_PAGE > 1 ? RIG_SUB_PAGE : 64))
    local start=$(((vid + 64 + RIG_MIN_IO - 1) / RIG_MIN_IO * RIG_MIN_IO))
    RIG_LEB=$((RIG_PEB - start))
}
rig_medium block2mtd

# Timed flash: a chip's own times, spent by its driver (rig/README.md gives their source).
# NAND: an SLC chip of nandsim's large-page geometry (1 Gbit, 2 KiB pages, 128 KiB blocks):
# page read 25 us, 30 ns a byte on the bus, page program 200 us, block erase 2 ms.
RIG_NAND_READ_US=25 RIG_NAND_CYCLE_NS=30 RIG_NAND_PROGRAM_US=200 RIG_NAND_ERASE_MS=2
# NOR: a serial NOR chip of 64 KiB blocks: 0.4 ms a 256-byte page program (1563 ns a byte),
# 150 ms a 64 KiB block erase.
RIG_NOR_PROGRAM_NS=1563 RIG_NOR_ERASE_US=150000

# nandsim's parameters for those times.
rig_nand_timing()
{
    echo "do_delays=1 access_delay=$RIG_NAND_READ_US programm_delay=$RIG_NAND_PROGRAM_US" \
        "erase_delay=$RIG_NAND_ERASE_MS input_cycle=$RIG_NAND_CYCLE_NS output_cycle=$RIG_NAND_CYCLE_NS"
}

# The config lines of a router on MEDIUM's timed chip.
rig_timing_config()
{
    case $1 in
    nand) echo "NAND_PARAMS=\"$(rig_nand_timing)\"" ;;
    nor) echo "NOR_PROGRAM_NS=$RIG_NOR_PROGRAM_NS NOR_ERASE_US=$RIG_NOR_ERASE_US" ;;
    *) echo "rig: no timed chip for $1" >&2; return 1 ;;
    esac
}

# rig_floor MEDIUM BEFORE AFTER [BASE:SIZE...]: "E erases, P programs, F ms", the physical
# floor of turning the flash image BEFORE into AFTER on MEDIUM's timed chip, the regions
# given erased whatever they hold.
rig_floor()
{
    local medium=$1 before=$2 after=$3 r erased=()
    shift 3
    for r in "$@"; do erased+=(--erased "$r"); done
    case $medium in
    nand)
        # A page program also moves its 2048 bytes over the bus.
        "$RIG_FLOOR" "$before" "$after" --erase-size 131072 --program-size 2048 \
            --erase-us $((RIG_NAND_ERASE_MS * 1000)) \
            --program-ns $((RIG_NAND_PROGRAM_US * 1000 + 2048 * RIG_NAND_CYCLE_NS)) "${erased[@]}"
        ;;
    nor)
        "$RIG_FLOOR" "$before" "$after" --erase-size 65536 --program-size 1 \
            --erase-us "$RIG_NOR_ERASE_US" --program-ns "$RIG_NOR_PROGRAM_NS" "${erased[@]}"
        ;;
    *) echo "rig: no timed chip for $medium" >&2; return 1 ;;
    esac
}

# The config line of a router on the current medium: FLASH, ERASE_SIZE and the rest given.
rig_flash_config()
{
    echo "FLASH=$RIG_MEDIUM ERASE_SIZE=$RIG_PEB $*"
}

# rig_ubinize OUT SIZE "NAME LEBS [FILE]" ...: a UBI image of dynamic volumes for the current
# medium, padded with 0xFF to SIZE bytes. With RIG_UBI_BAD="I ...", the erase blocks at those
# indexes are left erased and the image goes on behind them, as a flasher that skips bad
# blocks writes it: UBI takes its blocks wherever they are.
rig_ubinize()
{
    local out=$1 size=$2 cfg id=0 name lebs file
    shift 2
    cfg=$(mktemp)
    for entry in "$@"; do
        read -r name lebs file <<<"$entry"
        printf '[%s]\nmode=ubi\nvol_id=%d\nvol_type=dynamic\nvol_name=%s\nvol_size=%d\n' \
            "$name" "$id" "$name" $((lebs * RIG_LEB)) >>"$cfg"
        [ -n "$file" ] && printf 'image=%s\n' "$file" >>"$cfg"
        id=$((id + 1))
    done
    ubinize -o "$out" -p $RIG_PEB -m $RIG_MIN_IO -s $RIG_SUB_PAGE "$cfg" >/dev/null
    rm -f "$cfg"
    local bad
    for bad in $(printf '%s\n' ${RIG_UBI_BAD:-} | sort -n); do
        { head -c $((bad * RIG_PEB)) "$out"; head -c $RIG_PEB /dev/zero | tr '\0' '\377'
          tail -c +$((bad * RIG_PEB + 1)) "$out"; } >"$out.tmp"
        mv "$out.tmp" "$out"
    done
    rig_pad "$out" "$size"
}

# rig_tamper IN OUT OFFSET: a copy of IN with the byte at OFFSET inverted.
rig_tamper()
{
    cp "$1" "$2"
    local byte
    byte=$(od -An -tu1 -j "$(($3))" -N1 "$1" | tr -d ' ')
    printf "$(printf '\\%03o' $((255 - byte)))" |
        dd of="$2" bs=1 seek="$(($3))" conv=notrunc status=none
}

# rig_content_offset FILE IMAGE NAME: file offset of partition NAME's content in image
# IMAGE (0 first) of firmware FILE, from the pack tool's inspection.
rig_content_offset()
{
    local at base
    read -r at base < <("$RIG_PACK" inspect "$1" 2>/dev/null | awk -v img="$2" -v name="'$3'" '
        $1 == "image" { cur = $2; at = $4 }
        cur == img && $1 == "name" && $2 == name { print at, $4; exit }')
    base=$((base))
    [ $base -ge $((0x80000000)) ] && base=$((base - 0x100000000))
    echo $((at + 4160 + 65536 + base))
}
