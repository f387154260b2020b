#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Power cuts at every flash operation of each upgrade road, on the host:
#
#   bash scripts/powercut.sh [ROAD...]      roads: raw-moves raw raw-ubi ubi rollback
#
# Builds the plain tree (build/) when needed and runs the simulator's sweep
# (sim/powercut_main.cpp, sim/README.md), two roads at a time: for each road the upgrade runs once uncut to count its flash-changing
# operations (writes to flash nodes, erases, volume-update starts, shell commands), then is
# killed before, after and half-way through each of them on a fake device whose flash behaves
# as NOR flash and whose UBI volumes as UBI volumes. One line per road (a road fails with a
# violation, a retry that did not install, or user data lost), then "N passed, M failed" over
# the roads.
set -euo pipefail
cd "$(dirname "$0")/.."

roads=("$@")
[ ${#roads[@]} -gt 0 ] || roads=(raw-moves raw raw-ubi ubi rollback)
if [ ! -x build/sim/vireo_powercut ] || [ "${VIREO_POWERCUT_BUILD:-1}" = 1 ]; then
    bash scripts/build.sh build -DVIREO_POWER_CUT_RECOVERY=ON >/dev/null
fi
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
t0=$SECONDS
printf '%s\n' "${roads[@]}" |
    xargs -P 2 -I{} sh -c 'build/sim/vireo_powercut "$1" >"$2/$1.log" 2>&1 || true' sh {} "$out"
passed=0
failed=0
for road in "${roads[@]}"; do
    grep -v '^[0-9]* passed, [0-9]* failed$' "$out/$road.log" || true
    # The router build loses no user data at any cut (scripts/powercut-broken.sh shows that
    # the sweep sees a loss where there is one).
    if grep -q '^1 passed, 0 failed$' "$out/$road.log" &&
        grep -q ' 0 lost user data' "$out/$road.log"; then
        passed=$((passed + 1))
    else
        failed=$((failed + 1))
    fi
done
echo "power cuts on the host: $((SECONDS - t0)) s"
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
