#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs what is missing, builds the plain and the sanitizer trees, checks the
# formatting, runs every test in both trees, the signature tests in a tree that requires
# the Ed25519 signature, the power-cut sweep of the upgrade roads and the
# scenarios of the virtual router (x86_64, and three of them on arm64), then the aarch64
# cross build's tests, the install and packaging checks and the libuci tests, and prints
# the test share.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/deps.sh
# The plain tree with the options a router build takes (recovery from power cuts, the progress
# line); the sanitizer tree is the default build.
bash scripts/build.sh build -DVIREO_POWER_CUT_RECOVERY=ON -DVIREO_TERMINAL_PROGRESS=ON
bash scripts/build.sh build-asan -DVIREO_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug

bash scripts/check-format.sh

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
status=0
log=$(mktemp)
trap 'rm -f "$log"' EXIT
echo "== tests (plain build) =="
ctest --test-dir build --output-on-failure -j2 | tee -a "$log" || status=1
echo "== tests (AddressSanitizer + UndefinedBehaviorSanitizer build) =="
ctest --test-dir build-asan --output-on-failure -j2 | tee -a "$log" || status=1
echo "== the Ed25519 signature required: a tree built with VIREO_SIGNATURE_POLICY=require and the test key ring, its signature tests =="
cmake -S . -B build-require -G Ninja -DVIREO_SIGNATURE_POLICY=require \
    -DVIREO_SIGNATURE_KEYS=keys/vireo_test_keyring.txt -DVIREO_BUILD_BENCH=OFF >/dev/null
cmake --build build-require --target vireo_signature_tests
ctest --test-dir build-require --output-on-failure -j2 \
    -R '^(SignatureBlock|KeyRing|PrehashLane|SignaturePolicy|TokenSigning)\.' | tee -a "$log" || status=1
echo "== a power cut at every flash operation of each upgrade road, on the host (scripts/powercut.sh) =="
VIREO_POWERCUT_BUILD=0 bash scripts/powercut.sh | tee -a "$log" || status=1
echo "== the same sweep on a journal broken on purpose must lose user data (scripts/powercut-broken.sh) =="
VIREO_POWERCUT_BUILD=0 bash scripts/powercut-broken.sh | tee -a "$log" || status=1
echo "== the tool on the kernel's MTD and UBI drivers (virtual router, rig/run.sh) =="
bash rig/run.sh | tee -a "$log" || status=1
echo "== the virtual router on 64-bit ARM, as the real one: identity, raw and ubi (rig/run.sh --arch arm64) =="
bash rig/run.sh --arch arm64 identity raw ubi | tee -a "$log" || status=1
echo "== aarch64 cross build, its tests under qemu-user (scripts/cross-test.sh) =="
bash scripts/cross-test.sh | tee -a "$log" || status=1
echo "== DESTDIR install, man pages, the OpenWrt package's build (scripts/install-test.sh) =="
bash scripts/install-test.sh | tee -a "$log" || status=1
echo "== the settings code on the real libuci (scripts/libuci-test.sh) =="
bash scripts/libuci-test.sh | tee -a "$log" || status=1
echo "== every parser of outside bytes under libFuzzer, a short smoke run (scripts/fuzz.sh) =="
bash scripts/fuzz.sh 10 | tee -a "$log" || status=1

# The size of the tests against the code.
bash scripts/test-share.sh

# One closing line for all of them.
awk '/tests failed out of/ { total += $NF; failed += $(NF-4) }
     /^([a-z]+: )?[0-9]+ passed, [0-9]+ failed$/ { total += $(NF-3) + $(NF-1); failed += $(NF-1) }
     END { printf "%d passed, %d failed\n", total - failed, failed }' "$log"
exit $status
