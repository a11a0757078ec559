# What a recipe takes of OpenWrt's rules.mk. OUT and SOURCE come from the test.
INCLUDE_DIR := $(TOPDIR)/include
STAGING_DIR := $(OUT)/staging
PKG_BUILD_DIR := $(OUT)/build
PKG_INSTALL_DIR := $(OUT)/install

TARGET_CFLAGS := -Os -pipe -ffunction-sections -fdata-sections
TARGET_LDFLAGS := -L$(STAGING_DIR)/usr/lib -Wl,-z,now -Wl,-z,relro

CP := cp -fpR
INSTALL_DIR := install -d -m0755
INSTALL_BIN := install -m0755
INSTALL_CONF := install -m0600
INSTALL_DATA := install -m0644
