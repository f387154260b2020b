# The rig's host side, sourced by run.sh and demo.sh: paths, the libraries, and the two
# steps every scenario takes (a shared folder, a boot with its checks reported).
RIG_DIR=$RIG_ROOT/rig
RIG_BUILD=$RIG_ROOT/build-rig
RIG_BOOT_TIMEOUT=${RIG_BOOT_TIMEOUT:-120}

. "$RIG_DIR/lib/build.sh"
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

# rig_guest SHARE [FLASH]: boots the VM and reports its checks. Result: the guest's status.
rig_guest()
{
    local share=$1 status=0
    rig_boot "$@" || status=$?
    local log=$share/out/guest.log
    local oks=0
    [ -f "$log" ] && oks=$(grep -c '^ok - ' "$log" || true)
    echo "    ${share##*/}: $oks checks passed, boot to power-off ${RIG_BOOT_SECONDS}s"
    [ -f "$log" ] && grep '^not ok - ' "$log" | sed 's/^/    /' || true
    [ $status -eq 97 ] && echo "    no end marker; console: $share/console.log"
    return $status
}


# rig_device DEVICE DIR: DEVICE's (raw, dual or ubi) factory flash, firmware files and
# expected contents after the upgrade, in DIR.
rig_device()
{
    mkdir -p "$2"
    "$1_factory" "$2" && "$1_firmware" "$2" && "$1_expected" "$2"
}
