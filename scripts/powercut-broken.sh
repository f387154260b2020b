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
patch=scripts/broken/journal-record-before-move.patch
# Built again whenever the commit or the patch changed (the copy's files all new, so that
# nothing of another commit is kept).
from="$(git rev-parse HEAD) $(sha256sum <"$patch")"
if [ "$(cat "$dir/built-from" 2>/dev/null)" != "$from" ]; then
    rm -rf "$dir/src" "$dir/built-from"
    mkdir -p "$dir/src"
    git archive HEAD | tar -x -m -C "$dir/src"
    patch -s -d "$dir/src" -p1 <"$patch"
    cmake -S "$dir/src" -B "$dir/tree" -G Ninja -DVIREO_POWER_CUT_RECOVERY=ON \
        -DVIREO_BUILD_TESTS=OFF -DVIREO_BUILD_BENCH=OFF -DVIREO_BUILD_SIM=ON >/dev/null
    if ! cmake --build "$dir/tree" -j2 --target vireo_powercut vireo_flash_preload \
        vireo_fake_root_tool >"$dir/build.log" 2>&1; then
        tail -20 "$dir/build.log"
        echo "FAIL: the tree with the broken journal does not build"
        echo "0 passed, 1 failed"
        exit 1
    fi
    echo "$from" >"$dir/built-from"
fi
built=$((SECONDS - t0))
# The same sweep of the router build (build/, as scripts/powercut.sh makes it).
if [ ! -x build/sim/vireo_powercut ] || [ "${VIREO_POWERCUT_BUILD:-1}" = 1 ]; then
    bash scripts/build.sh build -DVIREO_POWER_CUT_RECOVERY=ON >/dev/null
fi
t1=$SECONDS
# The sweeps of raw-moves at every 5th operation in each variant, the two trees side by side
# (deterministic; about half the cut points lose data with the patch), and their lost user
# data.
"$dir/tree/sim/vireo_powercut" --stride 5 raw-moves >"$dir/sweep.log" 2>&1 &
build/sim/vireo_powercut --stride 5 raw-moves >"$dir/sweep-real.log" 2>&1 || true
wait || true
lost()
{
    sed -n 's/^raw-moves: .* \([0-9]*\) lost user data.*/\1/p' "$1"
}
broken=$(lost "$dir/sweep.log")
real=$(lost "$dir/sweep-real.log")
echo "    broken journal: $(grep '^raw-moves: .* lost user data' "$dir/sweep.log" || echo "no sweep line ($dir/sweep.log)")"
echo "    router build:   $(grep '^raw-moves: .* lost user data' "$dir/sweep-real.log" || echo "no sweep line ($dir/sweep-real.log)")"
if [ -n "$broken" ] && [ "$broken" -gt 0 ] && [ "$real" = 0 ]; then
    echo "PASS: the sweep finds the journal that records moves before writing them ($broken lost user data, the router build 0; broken tree built in $built s, both swept in $((SECONDS - t1)) s)"
    echo "1 passed, 0 failed"
else
    echo "FAIL: lost user data ${broken:-unknown} with the broken journal (must be more than 0), ${real:-unknown} with the router build (must be 0)"
    echo "0 passed, 1 failed"
    exit 1
fi
