# OpenWrt's steps for CMake: its own flags, no run path, and installed for other packages into the staging folder.
define Build/Configure
	CFLAGS="$(TARGET_CFLAGS)" CXXFLAGS="$(TARGET_CFLAGS)" LDFLAGS="$(TARGET_LDFLAGS)" \
	PKG_CONFIG_PATH="$(STAGING_DIR)/usr/lib/pkgconfig" \
	cmake -G Ninja -S $(SOURCE) -B $(PKG_BUILD_DIR) \
		-DCMAKE_BUILD_TYPE=Release -DCMAKE_C_FLAGS_RELEASE=-DNDEBUG -DCMAKE_CXX_FLAGS_RELEASE=-DNDEBUG \
		-DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_LIBDIR=lib -DCMAKE_PREFIX_PATH=$(STAGING_DIR)/usr \
		-DCMAKE_SKIP_RPATH=TRUE \
		$(CMAKE_OPTIONS)
endef

define Build/Compile
	cmake --build $(PKG_BUILD_DIR)
endef

define Build/Install
	DESTDIR=$(PKG_INSTALL_DIR) cmake --install $(PKG_BUILD_DIR)
endef

define Build/InstallDev
	$(if $(CMAKE_INSTALL),$(CP) $(PKG_INSTALL_DIR)/usr $(STAGING_DIR)/)
endef
