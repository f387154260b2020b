#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Fails when a C++ source differs from what .clang-format makes of it, or when a source file
# does not carry its licence in an SPDX line near its top.
set -euo pipefail
cd "$(dirname "$0")/.."
files=$(git ls-files -co --exclude-standard -- '*.cpp' '*.h' 2>/dev/null || find . -name '*.cpp' -o -name '*.h')
[ -n "$files" ] || exit 0
# shellcheck disable=SC2086
clang-format --dry-run --Werror $files
echo "formatting: ok"

# Every file but documents, data, keys and the licence itself.
missing=$(git ls-files 2>/dev/null |
    grep -Ev '(\.md|\.json|\.pem|\.txt|\.bin|^LICENSE|\.gitignore|\.clang-format)$' |
    while read -r f; do
        [ -f "$f" ] && ! head -n 3 "$f" | grep -q 'SPDX-License-Identifier:' && echo "$f"
    done || true)
if [ -n "$missing" ]; then
    echo "no SPDX-License-Identifier line in the first three lines of:"
    echo "$missing"
    exit 1
fi
echo "licence lines: ok"
