#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The size of the tests against the code: lines of C and C++ (.c .cc .cpp .h .hpp) of the
# project's files (tracked, or new and not ignored) in tests/ and fuzz/, against every other
# such line (sim/, the simulator, is equipment and counts as code). Prints one line:
#   test share: T test lines, C code lines, P%
# With --check LOW HIGH it fails when P lies outside [LOW, HIGH].
set -euo pipefail
cd "$(dirname "$0")/.."

lines() {
    git ls-files -co --exclude-standard -- "$@" | grep -E '\.(c|cc|cpp|h|hpp)$' | while read -r f; do
        [ -f "$f" ] && cat "$f"
    done | wc -l
}

tests=$(lines tests fuzz)
all=$(lines .)
code=$((all - tests))
pct=$((100 * tests / code))
echo "test share: $tests test lines, $code code lines, $pct%"
if [ "${1:-}" = --check ]; then
    [ "$pct" -ge "$2" ] && [ "$pct" -le "$3" ] ||
        { echo "test share: $pct% is outside $2-$3%" >&2; exit 1; }
fi
