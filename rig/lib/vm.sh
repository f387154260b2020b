# SPDX-License-Identifier: Apache-2.0
# Boots the virtual router. Sourced by run.sh.

# Kernel command line: serial console, no probing of hardware the router lacks.
rig_cmdline="console=ttyS0 quiet panic=-1 mitigations=off i8042.noaux i8042.nokbd i8042.nomux \
i8042.nopnp no_timer_check tsc=reliable"

# rig_qemu SHARE FLASH LOG: starts QEMU (TCG only) in the background and sets RIG_QEMU_PID.
# SHARE becomes the guest's /rig; FLASH, when not empty, its virtio disk /dev/vda. RIG_MEM:
# the router's memory in MiB (256).
rig_qemu()
{
    local share=$1 flash=$2 log=$3
    local disk=()
    if [ -n "$flash" ]; then
        disk=(-drive "file=$flash,if=none,id=flash,format=raw,cache=writeback"
              -device virtio-blk-pci,drive=flash)
    fi
    : >"$log"
    local machine=(qemu-system-x86_64 -accel tcg -machine pc) cmdline=$rig_cmdline
    [ "$RIG_ARCH" = arm64 ] && machine=("${rig_arm64_qemu[@]}") cmdline=$rig_arm64_cmdline
    "${machine[@]}" -m "${RIG_MEM:-256}" -smp 1 -nodefaults -no-user-config \
        -display none -no-reboot -serial "file:$log" \
        -kernel "$RIG_KERNEL" -initrd "$RIG_INITRD" -append "$cmdline" \
        -fsdev "local,id=rig,path=$share,security_model=none" \
        -device virtio-9p-pci,fsdev=rig,mount_tag=rig \
        "${disk[@]}" >"$log.qemu" 2>&1 &
    RIG_QEMU_PID=$!
}

# rig_boot SHARE [FLASH]: boots one VM and waits for its end marker. The result is the
# guest's status from the marker line, or 97 when the VM ended without one.
rig_boot()
{
    local share=$1 flash=${2:-} log=$1/console.log
    mkdir -p "$share/out"
    local t0=$SECONDS
    rig_qemu "$share" "$flash" "$log"
    local waited=0
    rig_wait_for "$log" '^RIG-END' "$RIG_BOOT_TIMEOUT" || waited=$?
    if [ $waited -eq 1 ]; then
        echo "    VM timed out after ${RIG_BOOT_TIMEOUT}s (log: $log)"
        kill -9 "$RIG_QEMU_PID" 2>/dev/null
    fi
    wait "$RIG_QEMU_PID" 2>/dev/null
    RIG_BOOT_SECONDS=$((SECONDS - t0))
    local status
    status=$(sed -n 's/^RIG-END \([0-9]*\).*/\1/p' "$log" | tail -1)
    return "${status:-97}"
}

# rig_wait_for LOG PATTERN SECONDS: waits until a line of LOG matches PATTERN (result 0),
# the time is up (1) or the VM ends without such a line (2).
rig_wait_for()
{
    local log=$1 pattern=$2 limit=$(($3 * 50)) i=0
    while [ $i -lt $limit ]; do
        grep -q "$pattern" "$log" 2>/dev/null && return 0
        kill -0 "$RIG_QEMU_PID" 2>/dev/null || { grep -q "$pattern" "$log" || return 2; return 0; }
        sleep 0.02
        i=$((i + 1))
    done
    return 1
}

rig_now_ms()
{
    echo $(($(date +%s%N) / 1000000))
}

# rig_boot_cut SHARE FLASH [CUT_MS]: boots the VM, waits for the guest's "RIG-MARK start"
# line and, with CUT_MS, kills the whole machine CUT_MS milliseconds later: the power cut.
# Without CUT_MS it waits for "RIG-MARK end" and sets RIG_UPGRADE_MS to the time between
# the two marks and RIG_FIRST_WRITE_MS to when the flash file first changed after the
# start. Sets RIG_CUT to "cut" or to "finished" (the upgrade ended first).
rig_boot_cut()
{
    local share=$1 flash=$2 cut=${3:-} log=$1/console.log t0
    mkdir -p "$share/out"
    rig_qemu "$share" "$flash" "$log"
    RIG_CUT=finished
    if ! rig_wait_for "$log" '^RIG-MARK start' "$RIG_BOOT_TIMEOUT"; then
        kill -9 "$RIG_QEMU_PID" 2>/dev/null
        wait "$RIG_QEMU_PID" 2>/dev/null
        echo "    the upgrade did not start (console: $log)"
        return 1
    fi
    t0=$(rig_now_ms)
    if [ -n "$cut" ]; then
        sleep "$(printf '%d.%03d' $((cut / 1000)) $((cut % 1000)))"
        grep -q '^RIG-MARK end' "$log" || RIG_CUT=cut
        kill -9 "$RIG_QEMU_PID" 2>/dev/null
    else
        local mtime limit=$((RIG_BOOT_TIMEOUT * 100))
        mtime=$(stat -c %.9Y "$flash")
        RIG_FIRST_WRITE_MS=""
        while [ $limit -gt 0 ] && ! grep -q '^RIG-MARK end' "$log" &&
            kill -0 "$RIG_QEMU_PID" 2>/dev/null; do
            if [ -z "$RIG_FIRST_WRITE_MS" ] && [ "$(stat -c %.9Y "$flash")" != "$mtime" ]; then
                RIG_FIRST_WRITE_MS=$(($(rig_now_ms) - t0))
            fi
            sleep 0.01
            limit=$((limit - 1))
        done
        RIG_UPGRADE_MS=$(($(rig_now_ms) - t0))
        rig_wait_for "$log" '^RIG-END' "$RIG_BOOT_TIMEOUT" || kill -9 "$RIG_QEMU_PID" 2>/dev/null
    fi
    wait "$RIG_QEMU_PID" 2>/dev/null
    return 0
}
