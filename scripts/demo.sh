#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs what is missing, builds the tool and shows it at work on the host.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/deps.sh
bash scripts/build.sh build-demo -DVIREO_BUILD_TESTS=OFF -DVIREO_BUILD_BENCH=OFF >/dev/null
tool=build-demo/vireo_firmware_upgrade
pack=build-demo/vireo_firmware_pack
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

echo "\$ $tool --help"
"$tool" --help
echo "\$ $tool -s -P examples/partition-table.json"
"$tool" -s -P examples/partition-table.json

echo
echo "\$ $pack build examples/firmware/manifest.json --key keys/vireo_test_key_DO_NOT_SHIP.pem -o up.bin"
"$pack" build examples/firmware/manifest.json --key keys/vireo_test_key_DO_NOT_SHIP.pem -o "$work/up.bin"
echo "\$ $pack inspect up.bin"
"$pack" inspect "$work/up.bin"
echo "\$ $tool -t up.bin"
"$tool" -t "$work/up.bin" && echo "exit status 0: signature verified"
cp "$work/up.bin" "$work/bad.bin"
printf '\x00' | dd of="$work/bad.bin" bs=1 seek=70000 conv=notrunc status=none
echo "\$ $tool -t bad.bin      # one byte changed"
if "$tool" -t "$work/bad.bin"; then echo "unexpected: tampered file accepted"; exit 1; fi
echo "exit status 255: tampered file refused"
