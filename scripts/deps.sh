#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the Debian packages the build and the tests need, when any is missing; with
# arguments, those packages instead (NAME:arm64 adds the arm64 architecture first).
set -euo pipefail

packages=(build-essential cmake ninja-build pkg-config libcjson-dev libgtest-dev
          libbenchmark-dev libssl-dev openssl clang-format libsodium-dev softhsm2
          libengine-pkcs11-openssl opensc libp11-kit-dev tmux)
[ $# -gt 0 ] && packages=("$@")

missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive
if [[ " ${missing[*]}" == *:arm64* ]] && ! dpkg --print-foreign-architectures | grep -qx arm64; then
    $SUDO dpkg --add-architecture arm64
fi
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
