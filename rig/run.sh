#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The virtual router: runs the tool on the kernel's MTD and UBI drivers in QEMU (TCG).
#
#   bash rig/run.sh [--arch x86_64|arm64] [--sweep] [SCENARIO...]
#
# --arch arm64 runs the router on 64-bit ARM (lib/arm64.sh); without scenarios, those of
# rig_arm64_scenarios.
# Builds what it needs from Debian's packages (cached in build-rig/), boots one fresh VM per
# scenario (several for the ones that reboot or cut the power) and ends with the line
# "N passed, M failed". --sweep cuts the power at 20 timed points per mode instead of 4, and
# powercut-nand and powercut-nor at every flash operation of every road in every variant
# (hours) instead of a stride of at least 50 (NAND) or 10 (NOR) per road.
set -euo pipefail

RIG_ROOT=$(cd "$(dirname "$0")/.." && pwd)
. "$RIG_ROOT/rig/lib/common.sh"
RIG_CUTS=4
RIG_POWERCUT_SWEEP=0
for f in "$RIG_DIR"/scenarios/*.sh; do
    case $f in *.guest.sh) ;; *) . "$f" ;; esac
done

rig_all_scenarios=(identity signature raw raw-ubi ubi ubi-badblocks raw-badblock speed powercut-raw
                   powercut-ubi powercut-nand powercut-nor nor-broken-erase rewrite small-router
                   openwrt large-move)
rig_arm64_scenarios=(identity signature raw raw-ubi ubi small-router powercut-nor nor-broken-erase)

usage()
{
    echo "Usage: bash rig/run.sh [--arch x86_64|arm64] [--sweep] [SCENARIO...]"
    echo "Scenarios: ${rig_all_scenarios[*]}"
    echo "On arm64 (--arch arm64 without scenarios): ${rig_arm64_scenarios[*]}; openwrt runs on x86_64 only"
}

selected=()
while [ $# -gt 0 ]; do
    case $1 in
    --sweep) RIG_CUTS=20 RIG_POWERCUT_SWEEP=1 ;;
    --arch)
        [ $# -gt 1 ] && rig_set_arch "$2" || { usage >&2; exit 2; }
        shift
        ;;
    -h | --help) usage; exit 0 ;;
    -*) usage >&2; exit 2 ;;
    *)
        declare -F "scenario_${1//-/_}" >/dev/null || { echo "unknown scenario: $1" >&2; exit 2; }
        selected+=("$1")
        ;;
    esac
    shift
done
if [ "$RIG_ARCH" = arm64 ]; then
    # openwrt builds OpenWrt's shell tools for the router with the host's compiler.
    for s in "${selected[@]}"; do
        [ "$s" != openwrt ] || { echo "scenario openwrt runs on x86_64 only" >&2; exit 2; }
    done
    [ ${#selected[@]} -gt 0 ] || selected=("${rig_arm64_scenarios[@]}")
fi
[ ${#selected[@]} -gt 0 ] || selected=("${rig_all_scenarios[@]}")

t0=$SECONDS
rig_build_all
echo "rig: $RIG_ARCH, kernel $RIG_KVER, initramfs $(($(wc -c <"$RIG_INITRD") / 1024)) KiB, built in $((SECONDS - t0)) s"

passed=0
failed=0
for s in "${selected[@]}"; do
    RIG_WORK=$RIG_BUILD/work/$s
    rm -rf "$RIG_WORK"
    mkdir -p "$RIG_WORK"
    echo "== $s =="
    rig_medium block2mtd
    ts=$SECONDS
    if "scenario_${s//-/_}"; then
        echo "PASS $s ($((SECONDS - ts)) s)"
        passed=$((passed + 1))
    else
        echo "FAIL $s ($((SECONDS - ts)) s; logs in ${RIG_WORK#$RIG_ROOT/})"
        failed=$((failed + 1))
    fi
done
echo "rig: $((SECONDS - t0)) s in all"
echo "$passed passed, $failed failed"
[ $failed -eq 0 ]
