#!/usr/bin/env bash
# Fails when a C++ source differs from what .clang-format makes of it.
set -euo pipefail
cd "$(dirname "$0")/.."
files=$(git ls-files -co --exclude-standard -- '*.cpp' '*.h' 2>/dev/null || find . -name '*.cpp' -o -name '*.h')
[ -n "$files" ] || exit 0
# shellcheck disable=SC2086
clang-format --dry-run --Werror $files
echo "formatting: ok"
