#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the project into a scratch DESTDIR and checks what lands where, renders the man
# pages with man(1) and holds their synopses and options against the programs, then builds
# the OpenWrt package's way: its Makefile evaluated with stand-ins for OpenWrt's make files
# (tests/openwrt), the CMake options it passes, its install recipe. Build trees:
# build-install and build-h13/openwrt. Ends with "install: N passed, M failed".
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

bash scripts/deps.sh
bash scripts/deps.sh man-db groff-base make

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
passed=0
failed=0
# check NAME COMMAND...: runs the command, counts and reports the outcome.
check() {
    local name=$1
    shift
    if "$@" >"$scratch/check.log" 2>&1; then
        passed=$((passed + 1))
        echo "ok   $name"
    else
        failed=$((failed + 1))
        echo "FAIL $name"
        sed 's/^/     /' "$scratch/check.log"
    fi
}

# The files below a tree, one a line, sorted.
files_below() {
    (cd "$1" && find . -type f -o -type l | sed 's|^\./||' | sort)
}

same_files() {
    diff <(printf '%s\n' "${@:2}" | sort) <(files_below "$1")
}

# A man page rendered as a terminal shows it, 80 columns, plain ASCII; fails on any
# warning of groff's (all of them enabled).
render() {
    local err
    err=$(LC_ALL=C MANWIDTH=80 man --warnings=w -l "$1" 2>&1 >"$2") || return 1
    [ -z "$err" ] || { echo "$err"; return 1; }
    [ -s "$2" ]
}

# The lines of one section of a rendered page, leading spaces removed.
section() {
    awk -v want="$2" '/^[A-Z]/ { on = ($0 == want); next } on && NF { sub(/^ +/, ""); print }' "$1"
}

# Every line of the first file is a line of the second.
lines_within() {
    local line status=0
    while IFS= read -r line; do
        grep -qxF -- "$line" "$2" || { echo "not in $2: '$line'"; status=1; }
    done <"$1"
    return $status
}

# The tool's usage text is fixed: "Usage:", the check and upgrade forms, an empty line.
# Those two forms, without the "./", are lines of the man page's synopsis.
usage_in_synopsis() {
    local tool=$1 page=$2
    "$tool" -h >"$scratch/usage"
    [ "$(wc -l <"$scratch/usage")" -eq 4 ] && [ "$(head -n1 "$scratch/usage")" = "Usage:" ] &&
        [ -z "$(tail -n1 "$scratch/usage")" ] || { cat "$scratch/usage"; return 1; }
    sed -n '2,3s|^\./||p' "$scratch/usage" >"$scratch/forms"
    section "$page" SYNOPSIS >"$scratch/synopsis"
    lines_within "$scratch/forms" "$scratch/synopsis"
}

# The pack tool's --help forms and its man page's synopsis are the same set of lines
# (besides the page's -h form).
pack_help_is_synopsis() {
    "$1" --help | sed -n 's/^  \(vireo_firmware_pack .*\)$/\1/p' >"$scratch/forms"
    section "$2" SYNOPSIS | grep -vx 'vireo_firmware_pack -h' >"$scratch/synopsis"
    [ -s "$scratch/forms" ] && diff "$scratch/forms" "$scratch/synopsis"
}

# The key tool's usage line, without "Usage: ", is a line of its man page's synopsis.
key_usage_in_synopsis() {
    "$1" -h | sed -n '1s/^Usage: //p' >"$scratch/forms"
    section "$2" SYNOPSIS >"$scratch/synopsis"
    [ -s "$scratch/forms" ] && lines_within "$scratch/forms" "$scratch/synopsis"
}

# Every option an entry of the page's OPTIONS section names ("-x", "-x arg, --long arg") is one the tool
# accepts: given before -h, which ends the run with the usage text, it draws no complaint.
options_accepted() {
    local tool=$1 page=$2 line opt arg err status=0 count=0
    while IFS= read -r line; do
        for opt in $(grep -oE '(^|, )--?[A-Za-z][-A-Za-z]*( [a-z]+)?' <<<"$line" | sed 's/^, //; s/ /=/'); do
            arg=()
            [[ $opt == *=* ]] && arg=("$scratch/none") && opt=${opt%%=*}
            err=$("$tool" "$opt" "${arg[@]}" -h 2>&1 >/dev/null) && [ -z "$err" ] ||
                { echo "$opt: $err"; status=1; }
            count=$((count + 1))
        done
    done < <(awk '/^[A-Z]/ { on = ($0 == "OPTIONS"); next } on && /^       -/ { sub(/^ +/, ""); print }' "$page")
    echo "$count options"
    [ "$count" -ge 20 ] && return $status
}

echo "== install into a scratch DESTDIR =="
cmake -S . -B build-install -G Ninja -DCMAKE_INSTALL_PREFIX=/usr -DVIREO_BUILD_TESTS=OFF \
    -DVIREO_BUILD_BENCH=OFF >/dev/null
cmake --build build-install -j2 >/dev/null
dest=$scratch/dest
DESTDIR=$dest cmake --install build-install >/dev/null
check "cmake --install puts the tool, the host tools and the man pages in place" same_files "$dest" \
    usr/sbin/vireo_firmware_upgrade usr/bin/vireo_firmware_pack usr/bin/vireo_key_text \
    usr/share/man/man8/vireo_firmware_upgrade.8 usr/share/man/man1/vireo_firmware_pack.1 \
    usr/share/man/man1/vireo_key_text.1
check "the installed programs run" eval "$dest/usr/sbin/vireo_firmware_upgrade -h >/dev/null &&
    $dest/usr/bin/vireo_firmware_pack --help >/dev/null &&
    { $dest/usr/bin/vireo_key_text; [ \$? -eq 2 ]; } 2>/dev/null"
page8=$dest/usr/share/man/man8/vireo_firmware_upgrade.8
page1=$dest/usr/share/man/man1/vireo_firmware_pack.1
pagekey=$dest/usr/share/man/man1/vireo_key_text.1
check "man -l renders vireo_firmware_upgrade(8) without warnings" render "$page8" "$scratch/page8"
check "man -l renders vireo_firmware_pack(1) without warnings" render "$page1" "$scratch/page1"
check "man -l renders vireo_key_text(1) without warnings" render "$pagekey" "$scratch/pagekey"
check "the usage text's forms are in the synopsis of vireo_firmware_upgrade(8)" \
    usage_in_synopsis "$dest/usr/sbin/vireo_firmware_upgrade" "$scratch/page8"
check "the options of vireo_firmware_upgrade(8) are the tool's" \
    options_accepted "$dest/usr/sbin/vireo_firmware_upgrade" "$scratch/page8"
check "vireo_firmware_pack --help and the synopsis of vireo_firmware_pack(1) agree" \
    pack_help_is_synopsis "$dest/usr/bin/vireo_firmware_pack" "$scratch/page1"
check "vireo_key_text -h names the synopsis of vireo_key_text(1)" \
    key_usage_in_synopsis "$dest/usr/bin/vireo_key_text" "$scratch/pagekey"

echo "== the OpenWrt package's build =="
owrt=$root/build-h13/openwrt
pkgmake() {
    make -s -C packaging/openwrt TOPDIR="$root/tests/openwrt" BUILD_DIR="$owrt" \
        CONFIG_VIREO_FIRMWARE_UPGRADE_KEY_FILE="\"$root/keys/vireo_test_key.txt\"" "$@"
}
rm -rf "$owrt"
mkdir -p "$owrt"
check "the package depends on libcjson and libuci" \
    eval "pkgmake print-depends | grep -qw -- +libcjson && pkgmake print-depends | grep -qw -- +libuci"
read -ra options <<<"$(pkgmake print-options)"
echo "     CMake options: ${options[*]}"
build=$owrt/vireo-firmware-upgrade-1.0.0
pkg_build() {
    pkgmake prepare &&
        cmake -S "$build" -B "$build/build" -G Ninja -DCMAKE_INSTALL_PREFIX=/usr "${options[@]}" >/dev/null &&
        cmake --build "$build/build" -j2 >/dev/null &&
        DESTDIR="$build/ipkg-install" cmake --install "$build/build" >/dev/null
}
check "the Makefile's CMake options configure, build and install the tool" pkg_build
check "that build needs no OpenSSL, GoogleTest or Google Benchmark" \
    eval "! grep -E '^(OPENSSL_CRYPTO_LIBRARY|GTest_DIR|benchmark_DIR)' $build/build/CMakeCache.txt"
check "the vendor key setting reaches the build" \
    grep -qx "VIREO_PUBLIC_KEY_FILE:FILEPATH=$root/keys/vireo_test_key.txt" "$build/build/CMakeCache.txt"
check "the package holds the tool, the upgrade hook and its settings, kept over upgrades" \
    eval "pkgmake install PKG_ROOT=$owrt/root &&
          same_files $owrt/root usr/sbin/vireo_firmware_upgrade \
              lib/upgrade/vireo_firmware_upgrade.sh etc/config/vireo_firmware_upgrade &&
          $owrt/root/usr/sbin/vireo_firmware_upgrade -h >/dev/null &&
          [ \"\$(pkgmake print-conffiles)\" = /etc/config/vireo_firmware_upgrade ]"
hook_after_platform() {
    local hook
    hook=$(ls "$owrt/root/lib/upgrade")
    sh -n "$owrt/root/lib/upgrade/$hook" &&
        [ "$(printf '%s\n' platform.sh "$hook" | LC_ALL=C sort | tail -n 1)" = "$hook" ]
}
check "the hook is a shell library, sourced after a board's platform.sh" hook_after_platform
signature_settings() {
    local ring=$root/keys/vireo_test_keyring.txt opts
    opts=$(pkgmake print-options CONFIG_VIREO_FIRMWARE_UPGRADE_SIGNATURE_REQUIRE=y \
        CONFIG_VIREO_FIRMWARE_UPGRADE_SIGNATURE_KEYS="\"$ring\"")
    grep -qw -- "-DVIREO_SIGNATURE_POLICY=require" <<<"$opts" &&
        grep -qw -- "-DVIREO_SIGNATURE_KEYS=$ring" <<<"$opts" &&
        ! pkgmake print-options | grep -q VIREO_SIGNATURE &&
        pkgmake print-depends | grep -qw -- +VIREO_FIRMWARE_UPGRADE_SIGNATURE_REQUIRE:libsodium
}
check "the signature policy and key ring settings reach the build; legacy passes none" \
    signature_settings
check "the package declares its licence, Apache-2.0, in the project's LICENSE" \
    eval "[ \"\$(pkgmake print-license)\" = 'Apache-2.0 LICENSE' ] &&
          grep -q 'Apache License' LICENSE && grep -q 'Version 2.0, January 2004' LICENSE"

echo "install: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
