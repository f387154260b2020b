#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the real libuci from its core sources into build-uci/, builds the tool and the
# settings tests against it (VIREO_HAVE_LIBUCI) and runs them: the table of settings files
# that our own uci reader is held to must be what libuci reads. The sources are never part
# of this project: they are looked for in $VIREO_LIBUCI_SOURCE_DIR, by default
# ../shared/third_party/libuci beside the project; without them the step is skipped.
set -euo pipefail
cd "$(dirname "$0")/.."

src=${VIREO_LIBUCI_SOURCE_DIR:-../shared/third_party/libuci}
for f in uci.h uci_config.h.in libuci.c list.c file.c util.c delta.c parse.c; do
    if [ ! -f "$src/$f" ]; then
        echo "libuci: skipped: no libuci sources at $src ($f missing); set VIREO_LIBUCI_SOURCE_DIR"
        exit 0
    fi
done
src=$(cd "$src" && pwd)

bash scripts/deps.sh
dir=build-uci
uci=$dir/libuci
mkdir -p "$uci/include" "$uci/lib" "$uci/obj"

# As an OpenWrt staging tree holds it: uci.h and uci_config.h, and the library. The
# configuration header is the template without its #cmakedefine lines (no debugging).
install -m 0644 "$src/uci.h" "$uci/include/uci.h"
{ grep -v '^#cmakedefine' "$src/uci_config.h.in" || true; } > "$uci/include/uci_config.h"
objects=()
for f in libuci file util delta parse; do # libuci.c includes list.c
    ${CC:-cc} -O2 -fPIC -w -I "$uci/include" -c "$src/$f.c" -o "$uci/obj/$f.o"
    objects+=("$uci/obj/$f.o")
done
rm -f "$uci/lib/libuci.a"
ar rcs "$uci/lib/libuci.a" "${objects[@]}"

# The project finds libuci as it would in an OpenWrt build: uci.h and libuci, no libubox.
cmake -S . -B "$dir" -G Ninja -DVIREO_BUILD_BENCH=OFF \
    -DUCI_INCLUDE_DIR="$PWD/$uci/include" -DUCI_LIBRARY="$PWD/$uci/lib/libuci.a" >"$dir/configure.log"
if ! grep -q "Settings: libuci" "$dir/configure.log"; then
    echo "libuci: the build did not take libuci" >&2
    exit 1
fi
cmake --build "$dir" -j2 --target vireo_firmware_upgrade vireo_uci_tests
ctest --test-dir "$dir" -L uci --output-on-failure -j2
