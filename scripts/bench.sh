#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds optimised and runs the benchmarks: the crypto primitives against OpenSSL, then
# whole commands on a large firmware file against md5sum, under both signature policies.
# Each ends with its ratios.
# Arguments go to the command benchmark: [MiB] [runs].
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
bash scripts/build.sh build-bench -DCMAKE_BUILD_TYPE=Release -DVIREO_BUILD_TESTS=OFF >/dev/null
build-bench/vireo_crypto_bench
status=0
build-bench/vireo_command_bench "$@" || status=1
# The same commands on a tool that requires the Ed25519 signature beside the RSA one.
cmake -S . -B build-bench-require -G Ninja -DCMAKE_BUILD_TYPE=Release -DVIREO_BUILD_TESTS=OFF \
    -DVIREO_SIGNATURE_POLICY=require -DVIREO_SIGNATURE_KEYS=keys/vireo_test_keyring.txt >/dev/null
cmake --build build-bench-require --target vireo_command_bench >/dev/null
build-bench-require/vireo_command_bench "$@" || status=1
exit $status
