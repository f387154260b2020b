#!/usr/bin/env bash
# Builds optimised and runs the crypto benchmark; its last lines give the ratios to OpenSSL.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
bash scripts/build.sh build-bench -DCMAKE_BUILD_TYPE=Release -DVIREO_BUILD_TESTS=OFF >/dev/null
build-bench/vireo_crypto_bench "$@"
