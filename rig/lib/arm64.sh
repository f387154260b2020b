# SPDX-License-Identifier: Apache-2.0
# The router on 64-bit ARM (run.sh --arch arm64): Debian's arm64 kernel under
# qemu-system-aarch64 (the "virt" machine, TCG), with the tool cross-built for aarch64 and
# the guest's programs from Debian's arm64 packages. Everything is cached in build-rig/arm64/;
# the host tools (the pack tool, the simulator's road maker) stay x86_64 in build-rig/tool/.
# Sourced by common.sh.

# Debian's arm64 kernel lacks the RAM and block-device MTD drivers and the raw NAND core (it
# has the generic NAND core with BCH): mtdram, block2mtd, the raw NAND core with its software
# Hamming ECC, and nandsim are built from Debian's kernel sources against its headers.
rig_arm64_kernel_sources=(drivers/mtd/devices/mtdram.c drivers/mtd/devices/block2mtd.c
                          'drivers/mtd/nand/raw/nand_*.c' drivers/mtd/nand/raw/internals.h
                          drivers/mtd/nand/raw/nandsim.c drivers/mtd/nand/ecc-sw-hamming.c)
rig_arm64_kernel_kbuild='# SPDX-License-Identifier: GPL-2.0
obj-m += mtdram.o block2mtd.o nand.o nandsim.o
nand-objs := nand_base.o nand_legacy.o nand_bbt.o nand_timings.o nand_ids.o nand_onfi.o \
    nand_jedec.o nand_amd.o nand_esmt.o nand_hynix.o nand_macronix.o nand_micron.o \
    nand_samsung.o nand_toshiba.o ecc-sw-hamming.o
# mtdram'"'"'s defaults as in the amd64 kernel (the router always gives both); the Hamming ECC
# the arm64 kernel leaves out, built into the raw NAND core here.
ccflags-y += -DCONFIG_MTDRAM_TOTAL_SIZE=4096 -DCONFIG_MTDRAM_ERASE_SIZE=128 \
    -DCONFIG_MTD_NAND_ECC_SW_HAMMING=1'

rig_arm64_modules=(
    drivers/virtio/virtio_pci.ko drivers/virtio/virtio_pci_legacy_dev.ko
    drivers/virtio/virtio_pci_modern_dev.ko drivers/block/virtio_blk.ko
    net/9p/9pnet.ko net/9p/9pnet_virtio.ko fs/9p/9p.ko fs/netfs/netfs.ko fs/fscache/fscache.ko
    drivers/mtd/mtd.ko drivers/mtd/mtd_blkdevs.ko drivers/mtd/mtdblock.ko drivers/mtd/ubi/ubi.ko
    drivers/mtd/nand/nandcore.ko lib/bch.ko
)

# The packages the arm64 router needs on top of the project's: the emulator, the cross
# compilers, and the arm64 libraries the tool links with (which enable the arm64
# architecture in apt); once the kernel is known, its sources (for the missing MTD drivers)
# and the kbuild and common headers the arm64 headers point into.
rig_arm64_packages=(qemu-system-arm gcc-aarch64-linux-gnu g++-aarch64-linux-gnu libc6:arm64
                    libstdc++6:arm64 libcjson-dev:arm64 libssl-dev:arm64 libsodium-dev:arm64
                    libp11-kit-dev:arm64)
rig_arm64_kernel_packages()
{
    echo "linux-source-${RIG_KVER%%.0-*}" "linux-headers-${RIG_KVER%-arm64}-common" \
        "linux-kbuild-${RIG_KVER%%.0-*}"
}

# rig_arm64_download PACKAGE: the .deb of PACKAGE (an arm64 one), fetched once into the
# cache. Prints its path.
rig_arm64_download()
{
    local cache=$RIG_BUILD/cache name=${1%%:*}
    if ! ls "$cache/${name}"_*_arm64.deb >/dev/null 2>&1; then
        echo "rig: fetching $1" >&2
        (cd "$cache" && apt-get download "$1" 2>&1 | grep -v '^W: Download is performed unsandboxed' >&2)
    fi
    ls "$cache/${name}"_*_arm64.deb | head -1
}

rig_arm64_kernel_package()
{
    apt-cache depends linux-image-arm64:arm64 2>/dev/null |
        awk '/Depends: linux-image-[0-9]/ { sub(":arm64", "", $2); print $2; exit }'
}

# The kernel package linux-image-arm64 depends on, fetched and unpacked once. Its Image is
# not compressed: QEMU boots it as it is. Sets RIG_KVER and RIG_KERNEL_VERSION (the
# package's version, which the kernel sources' must equal).
rig_arm64_fetch_kernel()
{
    local cache=$RIG_BUILD/cache pkg
    mkdir -p "$cache"
    pkg=$(rig_arm64_kernel_package)
    if [ -z "$pkg" ] && ! ls "$cache"/linux-image-*-arm64_*.deb >/dev/null 2>&1; then
        apt-get update -qq && pkg=$(rig_arm64_kernel_package)
    fi
    [ -n "$pkg" ] || pkg=$(cd "$cache" && ls linux-image-*-arm64_*.deb 2>/dev/null | head -1 | cut -d_ -f1)
    [ -n "$pkg" ] || { echo "rig: no Debian arm64 kernel package found" >&2; return 1; }
    RIG_KVER=${pkg#linux-image-}
    local deb kdir=$cache/$RIG_KVER
    deb=$(rig_arm64_download "$pkg:arm64") || return 1
    if [ ! -f "$kdir/.unpacked" ]; then
        rm -rf "$kdir"
        mkdir -p "$kdir/pkg"
        dpkg-deb -x "$deb" "$kdir/pkg"
        touch "$kdir/.unpacked"
    fi
    RIG_KERNEL_VERSION=$(dpkg-deb -f "$deb" Version)
    RIG_KERNEL=$kdir/pkg/boot/vmlinuz-$RIG_KVER
    RIG_MODULES=$kdir/pkg/lib/modules/$RIG_KVER
}

# The tool and the simulator's preloaded library cross-built for aarch64 (they run in the
# router); the pack tool and the road maker built for this machine (they run on the host).
rig_arm64_build_tool()
{
    local src tree=$RIG_BUILD/tool
    src=$(rig_tool_source)
    [ "${RIG_FROM_HEAD:-0}" = 1 ] && tree=$RIG_BUILD/tool-head
    rig_build_host_tools "$src"
    cmake -S "$src" -B "$tree" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$src/cmake/aarch64-linux-gnu.cmake" \
        -DVIREO_BUILD_TESTS=OFF -DVIREO_BUILD_BENCH=OFF -DVIREO_BUILD_HOST_TOOLS=OFF \
        -DVIREO_BUILD_SIM=ON -DVIREO_POWER_CUT_RECOVERY=ON >/dev/null
    nice cmake --build "$tree" -j2 --target vireo_firmware_upgrade vireo_flash_preload >/dev/null
    RIG_TOOL=$tree/vireo_firmware_upgrade
    RIG_PRELOAD=$tree/sim/libvireo_flash_preload.so
}

# Debian's arm64 headers, unpacked (not installed: the package wants the arm64 compiler as
# gcc-12); their scripts and tools point into the host's linux-kbuild, whose modpost reads
# the target's ELF class.
rig_arm64_headers()
{
    local dir=$RIG_BUILD/headers deb
    RIG_HEADERS=$dir/usr/src/linux-headers-$RIG_KVER
    [ -f "$dir/.unpacked" ] && return 0
    deb=$(rig_arm64_download "linux-headers-$RIG_KVER:arm64") || return 1
    rm -rf "$dir"
    mkdir -p "$dir"
    dpkg-deb -x "$deb" "$dir"
    local link
    for link in scripts tools; do
        ln -sfn "/usr/lib/linux-kbuild-${RIG_KVER%%.0-*}/$link" "$RIG_HEADERS/$link"
    done
    touch "$dir/.unpacked"
}

# rig_arm64_kbuild DIR: builds the modules of DIR's Kbuild for arm64, when a source changed.
rig_arm64_kbuild()
{
    local dir=$1 stamp
    stamp=$(cat "$dir"/Kbuild "$dir"/*.c "$dir"/*.h 2>/dev/null | md5sum)
    [ "$(cat "$dir/.built" 2>/dev/null)" = "$stamp" ] && return 0
    rm -f "$dir"/*.ko
    nice make -s -C "$RIG_HEADERS" ARCH=arm64 CROSS_COMPILE=aarch64-linux-gnu- M="$dir" modules \
        >"$dir/build.log" 2>&1 || { cat "$dir/build.log" >&2; return 1; }
    echo "$stamp" >"$dir/.built"
}

# The rig's own modules (every one rig/kmod/Kbuild lists) and the MTD drivers Debian's arm64
# kernel lacks, extracted from linux-source's tarball.
rig_arm64_build_kmod()
{
    rig_arm64_headers || return 1
    local own=$RIG_BUILD/kmod extra=$RIG_BUILD/kmod-kernel f
    mkdir -p "$own" "$extra"
    for f in "$RIG_DIR"/kmod/*; do
        cmp -s "$f" "$own/${f##*/}" || cp "$f" "$own/"
    done
    rig_arm64_kbuild "$own" || return 1
    local version=${RIG_KVER%%.0-*} sources
    sources=$(dpkg-query -W -f='${Version}' "linux-source-$version")
    if [ "$sources" != "$RIG_KERNEL_VERSION" ]; then
        echo "rig: linux-source-$version is $sources, the kernel $RIG_KERNEL_VERSION: update both" >&2
        return 1
    fi
    if [ "$(cat "$extra/Kbuild" 2>/dev/null)" != "$rig_arm64_kernel_kbuild" ]; then
        rm -rf "$extra"
        mkdir -p "$extra"
        tar -xJf "/usr/src/linux-source-$version.tar.xz" -C "$extra" --wildcards \
            --transform 's,.*/,,' "${rig_arm64_kernel_sources[@]/#/linux-source-$version/}" ||
            return 1
        echo "$rig_arm64_kernel_kbuild" >"$extra/Kbuild"
    fi
    rig_arm64_kbuild "$extra" || return 1
    RIG_KMODS=("$own"/*.ko "$extra"/*.ko)
}

# rig_arm64_libs FILE...: the arm64 libraries FILEs need (NEEDED entries, followed), as
# paths on this machine. Foreign programs are never run here.
rig_arm64_libs()
{
    local todo=("$@") seen=" " f lib path dir
    while [ ${#todo[@]} -gt 0 ]; do
        f=${todo[0]}
        todo=("${todo[@]:1}")
        for lib in $(aarch64-linux-gnu-readelf -d "$f" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
            case $seen in *" $lib "*) continue ;; esac
            seen="$seen$lib "
            path=""
            for dir in /lib/aarch64-linux-gnu /usr/lib/aarch64-linux-gnu; do
                [ -e "$dir/$lib" ] && { path=$dir/$lib; break; }
            done
            [ -n "$path" ] || { echo "rig: no arm64 $lib for ${f##*/}" >&2; return 1; }
            echo "$path"
            todo+=("$path")
        done
    done
}

# The arm64 initramfs: busybox and mtd-utils from Debian's arm64 packages, the kernel's
# modules, the rig's and the extracted ones, the cross-built tool with its libraries and
# the arm64 loader, the init and the `mtd` stand-in.
rig_arm64_build_initramfs()
{
    local tree=$RIG_BUILD/initramfs pkgs=$RIG_BUILD/pkgs m lib deb
    if [ ! -f "$pkgs/.unpacked" ]; then
        rm -rf "$pkgs"
        mkdir -p "$pkgs"
        for deb in busybox-static:arm64 mtd-utils:arm64; do
            deb=$(rig_arm64_download "$deb") || return 1
            dpkg-deb -x "$deb" "$pkgs"
        done
        touch "$pkgs/.unpacked"
    fi
    rm -rf "$tree"
    mkdir -p "$tree"/{bin,sbin,usr/bin,usr/sbin,proc,sys,dev,tmp,rig,lib}
    install -m 0755 "$pkgs/bin/busybox" "$tree/bin/busybox"
    for m in "${rig_arm64_modules[@]}"; do
        install -D -m 0644 "$RIG_MODULES/kernel/$m" "$tree/lib/modules/$RIG_KVER/kernel/$m"
    done
    # Built with the headers' debug information, which the router does not need.
    for m in "${RIG_KMODS[@]}"; do
        install -D -m 0644 "$m" "$tree/lib/modules/$RIG_KVER/extra/${m##*/}"
        aarch64-linux-gnu-strip --strip-debug "$tree/lib/modules/$RIG_KVER/extra/${m##*/}"
    done
    busybox depmod -b "$tree" "$RIG_KVER"
    local progs=()
    for m in "${rig_mtd_utils[@]}"; do
        install -m 0755 "$pkgs/usr/sbin/$m" "$tree/usr/sbin/$m"
        progs+=("$pkgs/usr/sbin/$m")
    done
    install -m 0755 "$RIG_TOOL" "$tree/usr/sbin/vireo_firmware_upgrade"
    install -D -m 0755 "$RIG_PRELOAD" "$tree/usr/lib/vireo_flash_preload.so"
    local libs
    libs=$(rig_arm64_libs "${progs[@]}" "$RIG_TOOL" "$RIG_PRELOAD") || return 1
    for lib in $libs; do
        install -D -m 0755 "$(readlink -f "$lib")" "$tree$lib"
    done
    # The loader, where the programs' interpreter entry looks for it.
    install -D -m 0755 "$(readlink -f /lib/ld-linux-aarch64.so.1)" "$tree/lib/ld-linux-aarch64.so.1"
    rig_initramfs_finish "$tree"
}

rig_arm64_build_all()
{
    rig_install_packages || return 1
    bash "$RIG_ROOT/scripts/deps.sh" "${rig_arm64_packages[@]}" || return 1
    rig_arm64_fetch_kernel || return 1
    # shellcheck disable=SC2046
    bash "$RIG_ROOT/scripts/deps.sh" $(rig_arm64_kernel_packages) || return 1
    rig_arm64_build_tool || return 1
    rig_arm64_build_kmod || return 1
    rig_arm64_build_initramfs
}

# The arm64 router's QEMU command (rig_qemu adds the shared folder, the disk and the files):
# the "virt" machine with PCI virtio devices, the console on its PL011 UART. Pointer
# authentication with QEMU's own algorithm: the architected one makes TCG several times
# slower and the kernel uses it either way.
rig_arm64_qemu=(qemu-system-aarch64 -accel tcg -machine virt -cpu max,pauth-impdef=on)
rig_arm64_cmdline="console=ttyAMA0 quiet panic=-1 mitigations=off"
