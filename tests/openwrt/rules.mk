# SPDX-License-Identifier: Apache-2.0
# Stand-ins for the OpenWrt build system's make files: just enough to evaluate a package
# Makefile outside an OpenWrt tree (scripts/install-test.sh), so that the options it passes
# to CMake and its install recipe can be run here.
INCLUDE_DIR:=$(TOPDIR)/include
INSTALL_DIR:=install -d -m0755
INSTALL_BIN:=install -m0755
INSTALL_DATA:=install -m0644
INSTALL_CONF:=install -m0600
qstrip=$(strip $(subst ",,$(1)))
