# SPDX-License-Identifier: Apache-2.0
# The rig's host side, sourced by run.sh and demo.sh: paths, the libraries, and the two
# steps every scenario takes (a shared folder, a boot with its checks reported).
RIG_DIR=$RIG_ROOT/rig
RIG_HOST_BUILD=$RIG_ROOT/build-rig

# rig_set_arch x86_64|arm64: the router's architecture. RIG_BUILD holds what is built for it
# (build-rig/ for x86_64, build-rig/arm64/ for arm64) and its scenarios' work; the host tools
# are always x86_64, in build-rig/tool/.
rig_set_arch()
{
    case $1 in
    x86_64) RIG_BUILD=$RIG_HOST_BUILD ;;
    arm64) RIG_BUILD=$RIG_HOST_BUILD/arm64 ;;
    *) echo "rig: unknown architecture $1 (x86_64 or arm64)" >&2; return 1 ;;
    esac
    RIG_ARCH=$1
}
rig_set_arch x86_64

# The router's machine as its `uname -m` names it.
rig_machine()
{
    case $RIG_ARCH in arm64) echo aarch64 ;; *) echo x86_64 ;; esac
}
RIG_BOOT_TIMEOUT=${RIG_BOOT_TIMEOUT:-120}

. "$RIG_DIR/lib/build.sh"
. "$RIG_DIR/lib/arm64.sh"
. "$RIG_DIR/lib/vm.sh"
. "$RIG_DIR/lib/host.sh"
. "$RIG_DIR/lib/raw_device.sh"
. "$RIG_DIR/lib/ubi_device.sh"
. "$RIG_DIR/lib/dual_device.sh"

# rig_share NAME GUEST_SCRIPT: a fresh shared folder for one VM, holding the guest script.
# Prints its path.
rig_share()
{
    local share=$RIG_WORK/$1
    rm -rf "$share"
    mkdir -p "$share/out"
    cp "$2" "$share/guest.sh"
    echo "$share"
}

# rig_router SHARE [FLASH]: boots the VM on the current medium (rig_medium) with the flash
# image file FLASH as its flash. On block2mtd the file is the flash; nandsim and the NOR flash
# keep their bytes in RAM, so the file is programmed at boot and the flash written back to it
# at power-off.
# Result: the guest's status (96 when the flash did not come back).
rig_router()
{
    local share=$1 flash=${2:-} status=0
    case $RIG_MEDIUM in
    nand | nand-small | nor)
        if [ -n "$flash" ]; then
            cp "$flash" "$share/flash.img"
            echo "FLASH_IMAGE=flash.img FLASH_SAVE=1" >>"$share/config"
        fi
        rig_boot "$share" || status=$?
        if [ -n "$flash" ]; then
            if [ -f "$share/out/flash.img" ]; then
                mv "$share/out/flash.img" "$flash"
            else
                status=96
            fi
            rm -f "$share/flash.img"
        fi
        ;;
    *) rig_boot "$share" "$flash" || status=$? ;;
    esac
    return $status
}

# rig_guest SHARE [FLASH]: rig_router, then the report of the guest's checks.
rig_guest()
{
    local share=$1 status=0
    rig_router "$@" || status=$?
    local log=$share/out/guest.log
    local oks=0
    [ -f "$log" ] && oks=$(grep -c '^ok - ' "$log" || true)
    echo "    ${share##*/}: $oks checks passed on $RIG_MEDIUM, boot to power-off ${RIG_BOOT_SECONDS}s"
    [ -f "$log" ] && grep '^not ok - ' "$log" | sed 's/^/    /' || true
    [ $status -eq 97 ] && echo "    no end marker; console: $share/console.log"
    [ $status -eq 96 ] && echo "    the flash did not come back from the router"
    return $status
}

# rig_device DEVICE DIR: DEVICE's (raw, dual or ubi) factory flash, firmware files and
# expected contents after the upgrade, in DIR.
rig_device()
{
    mkdir -p "$2"
    "$1_factory" "$2" && "$1_firmware" "$2" && "$1_expected" "$2"
}
