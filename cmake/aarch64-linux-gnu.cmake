# SPDX-License-Identifier: Apache-2.0
# Cross build for 64-bit ARM with Debian's cross compiler and multiarch (:arm64) libraries:
#   cmake -S . -B build-cross -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake
# Programs built here run on an x86 host under qemu-user (qemu-aarch64), which CTest uses
# as the emulator.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# Headers and libraries: the cross compiler's own tree, then the arm64 multiarch
# directories under /usr. Programs (pkg-config, qemu) come from the host.
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu /)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config answers for arm64 only.
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# The emulator loads the programs with the multiarch C and C++ runtime (libc6:arm64,
# libstdc++6:arm64): under qemu-user, fork() in a program on the cross compiler's own
# libc (/usr/aarch64-linux-gnu/lib, "-L") never returns in the child.
find_program(VIREO_QEMU_AARCH64 qemu-aarch64)
if(VIREO_QEMU_AARCH64)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${VIREO_QEMU_AARCH64})
endif()
