#!/usr/bin/env bash
# Installs what is missing, builds the plain and the sanitizer trees, checks the
# formatting and runs every test in both trees.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/deps.sh
bash scripts/build.sh build
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

# One closing line for both trees.
awk '/tests failed out of/ { total += $NF; failed += $(NF-4) }
     END { printf "%d passed, %d failed\n", total - failed, failed }' "$log"
exit $status
