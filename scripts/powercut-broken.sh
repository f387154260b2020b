#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The power-cut sweep must see a journal that lies. A copy of the committed tree (git archive
# HEAD) with scripts/broken/journal-record-before-move.patch applied records each move done
# before its first byte is written; built with recovery on, the host sweep of the raw-moves
# road (every 5th operation) must find user data lost (a retry after a cut in the middle of
# a move skips it), where the real build loses none (scripts/powercut.sh checks that).
# Prints one PASS or FAIL line and "N passed, M failed".
#
#   bash scripts/powercut-broken.sh
set -euo pipefail
cd "$(dirname "$0")/.."

dir=build-broken
t0=$SECONDS
rm -rf "$dir/src"
mkdir -p "$dir/src"
git archive HEAD | tar -x -C "$dir/src"
patch -s -d "$dir/src" -p1 <scripts/broken/journal-record-before-move.patch
cmake -S "$dir/src" -B "$dir/tree" -G Ninja -DVIREO_POWER_CUT_RECOVERY=ON -DVIREO_BUILD_TESTS=OFF \
    -DVIREO_BUILD_BENCH=OFF -DVIREO_BUILD_SIM=ON >/dev/null
cmake --build "$dir/tree" -j2 --target vireo_powercut vireo_flash_preload vireo_fake_root_tool \
    >"$dir/build.log" 2>&1 || { tail -20 "$dir/build.log"; echo "FAIL: the broken tree does not build"; echo "0 passed, 1 failed"; exit 1; }
built=$((SECONDS - t0))
# Every 5th operation in each variant: the sweep is deterministic, and about half its cut
# points lose data with this patch.
"$dir/tree/sim/vireo_powercut" --stride 5 raw-moves >"$dir/sweep.log" 2>&1 || true
line=$(grep '^raw-moves: .* lost user data' "$dir/sweep.log" || true)
lost=$(sed -n 's/.* \([0-9]*\) lost user data.*/\1/p' <<<"$line")
echo "    ${line:-no sweep line (log: $dir/sweep.log)}"
if [ -n "$lost" ] && [ "$lost" -gt 0 ]; then
    echo "PASS: the sweep finds the journal recording moves before they are written ($lost lost user data; built in $built s, swept in $((SECONDS - t0 - built)) s)"
    echo "1 passed, 0 failed"
else
    echo "FAIL: the sweep misses the journal recording moves before they are written (lost: ${lost:-none})"
    echo "0 passed, 1 failed"
    exit 1
fi
