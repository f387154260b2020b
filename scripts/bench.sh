#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds optimised and runs the benchmarks: the crypto primitives against OpenSSL, then
# whole commands on a large firmware file against md5sum. Each ends with its ratios.
# Arguments go to the command benchmark: [MiB] [runs].
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
bash scripts/build.sh build-bench -DCMAKE_BUILD_TYPE=Release -DVIREO_BUILD_TESTS=OFF >/dev/null
build-bench/vireo_crypto_bench
build-bench/vireo_command_bench "$@"
