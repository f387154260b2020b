# SPDX-License-Identifier: Apache-2.0
# Stand-in for OpenWrt's cmake.mk (see ../rules.mk): the package adds to CMAKE_OPTIONS, and
# the test passes them to CMake as cmake.mk would, with the prefix /usr.
CMAKE_OPTIONS:=
