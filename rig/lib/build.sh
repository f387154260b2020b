# SPDX-License-Identifier: Apache-2.0
# Builds what the virtual router needs, from Debian's packages only, into build-rig/:
# the tool (x86_64), the kernel and its modules, and the initramfs. Sourced by run.sh.

# libjson-c-dev: OpenWrt's jshn, built from libubox's sources for the openwrt scenario.
rig_packages=(qemu-system-x86 busybox-static mtd-utils xz-utils libjson-c-dev patch)

# Installs the project's build dependencies and the rig's packages when any is missing.
rig_install_packages()
{
    bash "$RIG_ROOT/scripts/deps.sh"
    local missing=() p
    for p in "${rig_packages[@]}"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    echo "rig: installing ${missing[*]}"
    local sudo=""
    [ "$(id -u)" -ne 0 ] && sudo="sudo"
    DEBIAN_FRONTEND=noninteractive $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

# The source tree the rig builds: the working tree, or, with RIG_FROM_HEAD=1, the last
# commit (when the working tree is in the middle of a change). Prints its path.
rig_tool_source()
{
    [ "${RIG_FROM_HEAD:-0}" = 1 ] || { echo "$RIG_ROOT"; return; }
    local src=$RIG_HOST_BUILD/head head
    head=$(git -C "$RIG_ROOT" rev-parse HEAD)
    if [ "$(cat "$src/.rig-head" 2>/dev/null)" != "$head" ]; then
        rm -rf "$src"
        mkdir -p "$src"
        git -C "$RIG_ROOT" archive HEAD | tar -x -C "$src"
        echo "$head" >"$src/.rig-head"
    fi
    echo "$src"
}

# rig_build_host_tools SRC [TARGET...]: the x86_64 tree of the rig (the router's build:
# recovery from power cuts on), with the pack tool and the simulator's road maker, which run
# on the host, and the TARGETs.
rig_build_host_tools()
{
    local src=$1 tree=$RIG_HOST_BUILD/tool
    shift
    [ "${RIG_FROM_HEAD:-0}" = 1 ] && tree=$RIG_HOST_BUILD/tool-head
    cmake -S "$src" -B "$tree" -G Ninja -DVIREO_BUILD_TESTS=OFF -DVIREO_BUILD_BENCH=OFF \
        -DVIREO_BUILD_SIM=ON -DVIREO_POWER_CUT_RECOVERY=ON >/dev/null
    cmake --build "$tree" -j2 --target vireo_firmware_pack vireo_sim_road vireo_flash_floor "$@" \
        >/dev/null
    RIG_PACK=$tree/vireo_firmware_pack
    RIG_SIM_ROAD=$tree/sim/vireo_sim_road
    RIG_FLOOR=$tree/sim/vireo_flash_floor
    RIG_HOST_TREE=$tree
}

# The tool and the host tools, built for this machine (x86_64). The simulator's preloaded
# library (sim/) makes the power cuts the router takes at a chosen flash operation of the
# tool; its roads are laid out for the router's flash by the road maker.
rig_build_tool()
{
    rig_build_host_tools "$(rig_tool_source)" vireo_firmware_upgrade vireo_flash_preload
    RIG_TOOL=$RIG_HOST_TREE/vireo_firmware_upgrade
    RIG_PRELOAD=$RIG_HOST_TREE/sim/libvireo_flash_preload.so
}

# A deliberately broken tool for the nor-broken-erase scenario: the last commit with
# rig/broken/skip-erase.patch applied (the raw upgrade writes a partition's content without
# erasing it first), built like the router's tool in build-rig/broken-tool. Sources are
# copied over the previous ones only where they changed, so a new commit rebuilds only
# what it touched. Sets RIG_BROKEN_TOOL.
rig_build_broken_tool()
{
    local src=$RIG_BUILD/broken-src new=$RIG_BUILD/broken-new tree=$RIG_BUILD/broken-tool f
    rm -rf "$new"
    mkdir -p "$new" "$src"
    git -C "$RIG_ROOT" archive HEAD | tar -x -C "$new"
    patch -s -p1 -d "$new" <"$RIG_DIR/broken/skip-erase.patch" ||
        { echo "rig: rig/broken/skip-erase.patch does not apply to the last commit" >&2; return 1; }
    (cd "$new" && find . -type f) | while read -r f; do
        cmp -s "$new/$f" "$src/$f" || install -D -m "$(stat -c %a "$new/$f")" "$new/$f" "$src/$f"
    done
    (cd "$src" && find . -type f) | while read -r f; do
        [ -e "$new/$f" ] || rm -f "$src/$f"
    done
    rm -rf "$new"
    # Built for the router's machine, as its good tool is.
    local cross=()
    [ "$RIG_ARCH" = arm64 ] && cross=(-DCMAKE_TOOLCHAIN_FILE="$src/cmake/aarch64-linux-gnu.cmake")
    cmake -S "$src" -B "$tree" -G Ninja -DVIREO_BUILD_TESTS=OFF -DVIREO_BUILD_BENCH=OFF \
        -DVIREO_BUILD_SIM=ON -DVIREO_POWER_CUT_RECOVERY=ON "${cross[@]}" >/dev/null
    nice cmake --build "$tree" -j2 --target vireo_firmware_upgrade >/dev/null
    RIG_BROKEN_TOOL=$tree/vireo_firmware_upgrade
}

# The kernel package that linux-image-amd64 depends on, as apt knows it.
rig_kernel_package()
{
    apt-cache depends linux-image-amd64 2>/dev/null |
        awk '/Depends: linux-image-[0-9]/ { print $2; exit }'
}

# Debian 12's kernel package (the version linux-image-amd64 points at), fetched once and
# unpacked without installing. The bzImage is unpacked to the ELF vmlinux, which QEMU boots
# through its PVH entry a few seconds faster than the compressed image.
rig_fetch_kernel()
{
    local cache=$RIG_BUILD/cache
    mkdir -p "$cache"
    local pkg
    pkg=$(rig_kernel_package)
    if [ -z "$pkg" ] && ! ls "$cache"/linux-image-*-amd64_*.deb >/dev/null 2>&1; then
        apt-get update -qq && pkg=$(rig_kernel_package)
    fi
    if [ -z "$pkg" ]; then
        pkg=$(cd "$cache" && ls linux-image-*-amd64_*.deb 2>/dev/null | head -1 | cut -d_ -f1)
    fi
    [ -n "$pkg" ] || { echo "rig: no Debian kernel package found" >&2; return 1; }
    if ! ls "$cache/${pkg}"_*.deb >/dev/null 2>&1; then
        echo "rig: fetching $pkg"
        (cd "$cache" && apt-get download "$pkg" 2>&1 | grep -v '^W: Download is performed unsandboxed')
    fi
    local deb
    deb=$(ls "$cache/${pkg}"_*.deb | head -1)
    RIG_KVER=${pkg#linux-image-}
    local kdir=$cache/$RIG_KVER
    if [ ! -f "$kdir/vmlinux" ]; then
        rm -rf "$kdir"
        mkdir -p "$kdir/pkg"
        dpkg-deb -x "$deb" "$kdir/pkg"
        local bz=$kdir/pkg/boot/vmlinuz-$RIG_KVER off
        off=$(LC_ALL=C grep -obUaP '\xfd7zXZ\x00' "$bz" | head -1 | cut -d: -f1)
        [ -n "$off" ] || { echo "rig: $bz holds no xz stream" >&2; return 1; }
        # xz stops with an error at the data behind the stream; the kernel is complete.
        tail -c +$((off + 1)) "$bz" | xz -dcq >"$kdir/vmlinux.tmp" 2>/dev/null || true
        [ "$(head -c 4 "$kdir/vmlinux.tmp" | od -An -tx1 | tr -d ' ')" = 7f454c46 ] ||
            { echo "rig: could not unpack $bz" >&2; return 1; }
        mv "$kdir/vmlinux.tmp" "$kdir/vmlinux"
    fi
    RIG_KERNEL=$kdir/vmlinux
    RIG_MODULES=$kdir/pkg/lib/modules/$RIG_KVER
}

# Modules the router loads, in no particular order: busybox depmod writes modules.dep and
# modprobe resolves the order inside the VM.
rig_modules=(
    drivers/virtio/virtio.ko drivers/virtio/virtio_ring.ko drivers/virtio/virtio_pci.ko
    drivers/virtio/virtio_pci_legacy_dev.ko drivers/virtio/virtio_pci_modern_dev.ko
    drivers/block/virtio_blk.ko
    net/9p/9pnet.ko net/9p/9pnet_virtio.ko fs/9p/9p.ko fs/netfs/netfs.ko fs/fscache/fscache.ko
    drivers/mtd/mtd.ko drivers/mtd/devices/mtdram.ko drivers/mtd/devices/block2mtd.ko
    drivers/mtd/mtd_blkdevs.ko drivers/mtd/mtdblock.ko drivers/mtd/ubi/ubi.ko
    drivers/mtd/nand/nandcore.ko drivers/mtd/nand/raw/nand.ko drivers/mtd/nand/raw/nandsim.ko
    lib/bch.ko
)

rig_mtd_utils=(flash_erase mtdinfo nandwrite ubiattach ubidetach ubimkvol ubirmvol ubiupdatevol
               ubinfo)

# The rig's own kernel modules (rig/kmod, test equipment), built with Kbuild against Debian's
# headers of the rig's kernel, which are installed when missing: the named partitions on the
# whole flash, and the NOR flash in RAM.
rig_kmods=(rig_mtdparts rig_nor)
rig_build_kmod()
{
    local headers=/usr/src/linux-headers-$RIG_KVER out=$RIG_BUILD/kmod
    if [ ! -d "$headers" ]; then
        echo "rig: installing linux-headers-$RIG_KVER"
        local sudo=""
        [ "$(id -u)" -ne 0 ] && sudo="sudo"
        DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends \
            "linux-headers-$RIG_KVER" >/dev/null
    fi
    mkdir -p "$out"
    local f stale=0
    for f in "$RIG_DIR"/kmod/*.c "$RIG_DIR/kmod/Kbuild"; do
        cmp -s "$f" "$out/${f##*/}" || stale=1
    done
    for f in "${rig_kmods[@]}"; do [ -f "$out/$f.ko" ] || stale=1; done
    if [ $stale = 1 ]; then
        cp "$RIG_DIR"/kmod/*.c "$RIG_DIR/kmod/Kbuild" "$out/"
        make -s -C "$headers" M="$out" modules >"$out/build.log" 2>&1 ||
            { cat "$out/build.log" >&2; return 1; }
    fi
    RIG_KMOD_DIR=$out
}

# Copies a dynamically linked program and the libraries it needs into the tree.
rig_copy_program()
{
    local prog=$1 dest=$2 tree=$3 lib
    install -D -m 0755 "$prog" "$tree$dest"
    for lib in $(ldd "$prog" | awk '/=> \// { print $3 } /^\t\/lib/ { print $1 }'); do
        [ -e "$tree$lib" ] || install -D -m 0755 "$lib" "$tree$lib"
    done
}

# The initramfs: busybox, the modules (the rig's own among them), mtd-utils, the tool, the
# init and the `mtd` stand-in.
rig_build_initramfs()
{
    local tree=$RIG_BUILD/initramfs m
    rm -rf "$tree"
    mkdir -p "$tree"/{bin,sbin,usr/bin,usr/sbin,proc,sys,dev,tmp,rig,lib64}
    install -m 0755 /bin/busybox "$tree/bin/busybox"
    for m in "${rig_modules[@]}"; do
        install -D -m 0644 "$RIG_MODULES/kernel/$m" "$tree/lib/modules/$RIG_KVER/kernel/$m"
    done
    for m in "${rig_kmods[@]}"; do
        install -D -m 0644 "$RIG_KMOD_DIR/$m.ko" "$tree/lib/modules/$RIG_KVER/extra/$m.ko"
    done
    busybox depmod -b "$tree" "$RIG_KVER"
    for m in "${rig_mtd_utils[@]}"; do
        rig_copy_program "/usr/sbin/$m" "/usr/sbin/$m" "$tree"
    done
    rig_copy_program "$RIG_TOOL" /usr/sbin/vireo_firmware_upgrade "$tree"
    install -D -m 0755 "$RIG_PRELOAD" "$tree/usr/lib/vireo_flash_preload.so"
    rig_initramfs_finish "$tree"
}

# The `mtd` stand-in, static for the router's architecture, built again when its source
# changed.
rig_build_mtd()
{
    local out=$RIG_BUILD/mtd cc=gcc
    [ "$RIG_ARCH" = arm64 ] && cc=aarch64-linux-gnu-gcc
    if ! cmp -s "$RIG_DIR/guest/mtd.c" "$out/mtd.c" || [ ! -x "$out/mtd" ]; then
        mkdir -p "$out"
        rm -f "$out/mtd.c"
        "$cc" -O2 -Wall -Wextra -Werror -static -o "$out/mtd" "$RIG_DIR/guest/mtd.c" || return 1
        cp "$RIG_DIR/guest/mtd.c" "$out/mtd.c"
    fi
    echo "$out/mtd"
}

# rig_initramfs_finish TREE: the guest's own files (the init, the `mtd` stand-in, the
# helpers) added to TREE, packed as the initramfs RIG_INITRD.
rig_initramfs_finish()
{
    local tree=$1 mtd
    mtd=$(rig_build_mtd) || return 1
    install -m 0755 "$RIG_DIR/guest/init" "$tree/init"
    install -m 0755 "$mtd" "$tree/usr/sbin/mtd"
    install -m 0644 "$RIG_DIR/guest/lib.sh" "$tree/lib/rig.sh"
    (cd "$tree" && find . | LC_ALL=C sort | busybox cpio -o -H newc 2>/dev/null) \
        >"$RIG_BUILD/initramfs.cpio"
    RIG_INITRD=$RIG_BUILD/initramfs.cpio
}

rig_build_all()
{
    [ "$RIG_ARCH" = arm64 ] && { rig_arm64_build_all; return; }
    rig_install_packages
    rig_build_tool
    rig_fetch_kernel
    rig_build_kmod
    rig_build_initramfs
}
