#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The power-cut sweep must see a journal that lies. A copy of the committed tree (git archive
# HEAD) with scripts/broken/journal-record-before-move.patch applied records each move done
# before its first byte is written; built with recovery on, the host sweep of the raw-moves
# road (every 5th operation) must find user data lost (a retry after a cut in the middle of
# a move skips it), where the router build (build/, made as scripts/powercut.sh makes it;
# VIREO_POWERCUT_BUILD=0 takes it as it is) loses none. Prints one PASS or FAIL line and
# "N passed, M failed".
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
# The same sweep of the router build (build/, as scripts/powercut.sh makes it).
if [ ! -x build/sim/vireo_powercut ] || [ "${VIREO_POWERCUT_BUILD:-1}" = 1 ]; then
    bash scripts/build.sh build -DVIREO_POWER_CUT_RECOVERY=ON >/dev/null
fi
t1=$SECONDS
# lost TREE LOG: the sweep of raw-moves at every 5th operation in each variant (it is
# deterministic; about half its cut points lose data with the patch), its lost user data.
lost()
{
    "$1/sim/vireo_powercut" --stride 5 raw-moves >"$2" 2>&1 || true
    local line
    line=$(grep '^raw-moves: .* lost user data' "$2" || true)
    echo "    ${1%/tree}: ${line:-no sweep line (log: $2)}" >&2
    sed -n 's/.* \([0-9]*\) lost user data.*/\1/p' <<<"$line"
}
broken=$(lost "$dir/tree" "$dir/sweep.log")
real=$(lost build "$dir/sweep-real.log")
if [ -n "$broken" ] && [ "$broken" -gt 0 ] && [ "$real" = 0 ]; then
    echo "PASS: the sweep finds the journal that records moves before writing them ($broken lost user data, the router build 0; broken tree built in $built s, both swept in $((SECONDS - t1)) s)"
    echo "1 passed, 0 failed"
else
    echo "FAIL: lost user data ${broken:-unknown} with the broken journal (must be more than 0), ${real:-unknown} with the router build (must be 0)"
    echo "0 passed, 1 failed"
    exit 1
fi
