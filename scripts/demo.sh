#!/usr/bin/env bash
# Installs what is missing, builds the tool and shows it at work on the host.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/deps.sh
bash scripts/build.sh build-demo -DVIREO_BUILD_TESTS=OFF >/dev/null
tool=build-demo/vireo_firmware_upgrade

echo "\$ $tool --help"
"$tool" --help
echo "\$ $tool -s -P examples/partition-table.json"
"$tool" -s -P examples/partition-table.json
