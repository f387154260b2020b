#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Configures and builds one tree: scripts/build.sh DIR [cmake options...]
set -euo pipefail
dir=$1
shift
cmake -S "$(dirname "$0")/.." -B "$dir" -G Ninja "$@" >/dev/null
cmake --build "$dir"
