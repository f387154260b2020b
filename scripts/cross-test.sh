#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the tool, the host tools and the tests for 64-bit ARM (aarch64) with Debian's cross
# compiler and arm64 libraries in build-cross/, and runs the tests under qemu-user: CTest
# starts each test program under qemu-aarch64, and the tests start the aarch64 programs
# they run through small scripts that do the same (tests/CMakeLists.txt).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/deps.sh
bash scripts/deps.sh file g++-aarch64-linux-gnu qemu-user libc6:arm64 libstdc++6:arm64 \
    libcjson-dev:arm64 libgtest-dev:arm64 libssl-dev:arm64 libsodium-dev:arm64 \
    libp11-kit-dev:arm64

cmake -S . -B build-cross -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake \
    -DVIREO_BUILD_BENCH=OFF >/dev/null
cmake --build build-cross -j2
if ! file -L build-cross/vireo_firmware_upgrade | grep -q 'ARM aarch64'; then
    echo "cross build: build-cross/vireo_firmware_upgrade is not an aarch64 program" >&2
    exit 1
fi
ctest --test-dir build-cross --output-on-failure -j2 --timeout 600
