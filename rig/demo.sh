#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The tool's main job on the virtual router: packs and signs a firmware file with
# vireo_firmware_pack, boots the router VR100 (its flash a NAND chip of the kernel's nandsim)
# with its factory layout, runs -C and then -U,
# and shows the partition table and the boot flag before and after (after a reboot, when
# the new layout has become the router's partitions). Everything it needs is installed
# from Debian's packages and built on the first run.
#
#   bash rig/demo.sh [--arch arm64|x86_64]
#
# The router is 64-bit ARM, as the real one, unless --arch x86_64 asks for the faster one.
set -euo pipefail
RIG_ROOT=$(cd "$(dirname "$0")/.." && pwd)
. "$RIG_ROOT/rig/lib/common.sh"

arch=arm64
while [ $# -gt 0 ]; do
    case $1 in
    --arch) [ $# -gt 1 ] || { echo "Usage: bash rig/demo.sh [--arch arm64|x86_64]" >&2; exit 2; }
            arch=$2; shift ;;
    -h | --help) echo "Usage: bash rig/demo.sh [--arch arm64|x86_64]"; exit 0 ;;
    *) echo "Usage: bash rig/demo.sh [--arch arm64|x86_64]" >&2; exit 2 ;;
    esac
    shift
done
rig_set_arch "$arch" || exit 2

echo "== building the tool, the kernel and the router's initramfs for $RIG_ARCH (cached in ${RIG_BUILD#$RIG_ROOT/}/)"
rig_build_all
RIG_WORK=$RIG_BUILD/work/demo
rm -rf "$RIG_WORK"
data=$RIG_WORK/data
mkdir -p "$data"
rig_medium nand
raw_factory "$data"
raw_firmware "$data"
cp "$data/factory.img" "$RIG_WORK/flash.img"

echo
echo "== the firmware file: two images, the second for the VR100 with a new layout"
echo "\$ vireo_firmware_pack build up.json --key keys/vireo_test_key_DO_NOT_SHIP.pem -o up.bin"
sed 's/^/    /' "$data/up.json"
echo "\$ vireo_firmware_pack inspect up.bin | grep -E 'image|name|signature'"
"$RIG_PACK" inspect "$data/up.bin" | grep -E "^image|  name|signature"

share=$(rig_share router "$RIG_DIR/guest/demo.sh")
cp "$data/up.bin" "$share/"
config=$(rig_flash_config "FLASH_SIZE=$((RAW_DISK)) PTN_BASE=$RAW_PTN_BASE")
echo "$config PHASE=upgrade" >"$share/config"
echo
echo "== booting the router ($RIG_ARCH, Debian's kernel $RIG_KVER in QEMU, TCG) on its factory flash: NAND, 2 KiB pages, 128 KiB erase blocks"
rig_router "$share" "$RIG_WORK/flash.img" || true
cat "$share/out/guest.log"
echo "    (booted and powered off in ${RIG_BOOT_SECONDS}s; full traces in ${share#$RIG_ROOT/}/out/)"

share=$(rig_share reboot "$RIG_DIR/guest/demo.sh")
echo "$config PHASE=reboot" >"$share/config"
echo
echo "== rebooting the router on the same flash: the partitions are those of its table now"
rig_router "$share" "$RIG_WORK/flash.img" || true
cat "$share/out/guest.log"
