# SPDX-License-Identifier: Apache-2.0
# Stand-in for OpenWrt's package.mk (see ../rules.mk). BuildPackage offers targets that
# show the package's settings and run its recipes:
#   print-depends, print-options, print-license, print-conffiles, prepare (Build/Prepare),
#   install (Package/NAME/install into PKG_ROOT)
PKG_BUILD_DIR ?= $(BUILD_DIR)/$(PKG_NAME)-$(PKG_VERSION)
PKG_INSTALL_DIR ?= $(PKG_BUILD_DIR)/ipkg-install

define BuildPackage
$(eval $(Package/$(1)))
print-depends:
	@echo '$(DEPENDS)'
print-options:
	@echo '$(CMAKE_OPTIONS)'
print-license:
	@echo '$(PKG_LICENSE) $(PKG_LICENSE_FILES)'
print-conffiles:
	@echo '$(Package/$(1)/conffiles)'
prepare:
	$(Build/Prepare)
install:
	$(call Package/$(1)/install,$(PKG_ROOT))
endef
