# SPDX-License-Identifier: Apache-2.0
# Signature: a firmware file with one byte changed is refused by -t, -C and -U, in both
# work modes, and no byte of the flash or of a UBI volume changes. On NAND, and on NOR
# (raw flash in 128 KiB erase blocks, the UBI device in 64 KiB ones).

scenario_signature()
{
    local status=0 share raw=$RIG_WORK/raw-data ubi=$RIG_WORK/ubi-data size medium
    mkdir -p "$raw" "$ubi"
    raw_factory "$raw"
    raw_firmware "$raw"
    size=$(wc -c <"$raw/up.bin")
    rig_tamper "$raw/up.bin" "$raw/bad.bin" $((size - 1000))
    for medium in nand nor; do
        rig_medium "$medium"
        share=$(rig_share "$medium-raw" "$RIG_DIR/scenarios/signature.guest.sh")
        cp "$raw/up.bin" "$share/good.bin"
        cp "$raw/bad.bin" "$share/bad.bin"
        cp "$raw/factory.img" "$raw/flash.img"
        rig_flash_config "FLASH_SIZE=$((RAW_DISK)) PTN_BASE=$RAW_PTN_BASE MODE=default" >"$share/config"
        rig_guest "$share" "$raw/flash.img" || status=1
    done

    for medium in nand nor; do
        # The UBI device's images are made for the medium's geometry.
        rig_medium "$medium" 65536
        rm -rf "$ubi"
        mkdir -p "$ubi"
        ubi_factory "$ubi"
        ubi_firmware "$ubi"
        share=$(rig_share "$medium-ubi" "$RIG_DIR/scenarios/signature.guest.sh")
        cp "$ubi/up.bin" "$share/good.bin"
        size=$(wc -c <"$ubi/up.bin")
        rig_tamper "$ubi/up.bin" "$share/bad.bin" $((size / 2))
        cp -r "$ubi/factory" "$share/"
        cp "$ubi/factory.img" "$ubi/flash.img"
        rig_flash_config "FLASH_SIZE=$((UBI_DISK)) PTN_BASE=$UBI_PTN_BASE UBI_ATTACH=ubi:0 MODE=ubi" \
            >"$share/config"
        rig_guest "$share" "$ubi/flash.img" || status=1
    done
    return $status
}
