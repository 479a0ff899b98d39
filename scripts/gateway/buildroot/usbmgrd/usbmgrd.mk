################################################################################
#
# usbmgrd
#
# Built from this source tree with the project's own gateway toolchain file,
# against the platform's libraries in the staging folder. Use
# this tree as a Buildroot external tree:
#   make BR2_EXTERNAL=/path/to/usbmgrd/scripts/gateway/buildroot menuconfig
#
################################################################################

USBMGRD_VERSION = 0.1
USBMGRD_SITE = $(BR2_EXTERNAL_USBMGRD_PATH)/../../..
USBMGRD_SITE_METHOD = local
USBMGRD_DEPENDENCIES = $(call qstrip,$(BR2_PACKAGE_USBMGRD_PLATFORM_PACKAGE))

# The last -DCMAKE_TOOLCHAIN_FILE on the command line wins over Buildroot's
# own: the project's file takes the same compiler and sysroot.
USBMGRD_CONF_OPTS = \
	-DCMAKE_TOOLCHAIN_FILE=$(@D)/cmake/gateway-toolchain.cmake \
	-DGATEWAY_TOOLCHAIN_PREFIX=$(TARGET_CROSS) \
	-DGATEWAY_SYSROOT=$(STAGING_DIR) \
	-DUSBMGR_HOST_PLATFORM=OFF \
	-DUSBMGR_PLATFORM_LIBDIR=$(STAGING_DIR)/usr/lib \
	-DUSBMGR_TESTS=OFF \
	-DUSBMGR_BENCH=OFF \
	-DUSBMGR_LOCK_CHECKS=OFF

# `cmake --install` (DESTDIR=$(TARGET_DIR)) puts /usr/sbin/usbmgrd,
# /usr/bin/usbmgrctl, /etc/usbmgrd/usbmgr.conf, /etc/init.d/usbmgrd and
# /usr/libexec/usbmgrd/usbmgrd-setup; BusyBox init runs the S??* scripts.
define USBMGRD_INSTALL_INIT_SYSV
	ln -sf usbmgrd $(TARGET_DIR)/etc/init.d/S80usbmgrd
endef

$(eval $(cmake-package))
