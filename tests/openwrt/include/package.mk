# OpenWrt's steps for a recipe with several packages: it is built once; then each package's files go into a folder of its
# own, and what its description says into NAME.fields.
packages:

built:
	test -f $(SOURCE)/$(PKG_LICENSE_FILES)
	$(Build/Configure)
	$(Build/Compile)
	$(Build/Install)
	$(Build/InstallDev)

define BuildPackage
DEPENDS :=
USERID :=
ABI_VERSION :=
$(Package/$(1))
package-$(1): fields := Depends $$(DEPENDS);Accounts $$(USERID);Version $$(PKG_VERSION)-$$(PKG_RELEASE);Abi $$(ABI_VERSION)
package-$(1): built
	mkdir -p $$(OUT)/$(1)
	$(call Package/$(1)/install,$$(OUT)/$(1))
	echo '$$(fields)' | tr ';' '\n' >$$(OUT)/$(1).fields
	echo 'Kept $$(strip $$(Package/$(1)/conffiles))' >>$$(OUT)/$(1).fields
packages: package-$(1)
endef
