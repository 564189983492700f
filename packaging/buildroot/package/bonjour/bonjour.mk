################################################################################
#
# bonjour: the tree that contains this external tree
#
################################################################################

BONJOUR_VERSION = 2.1
BONJOUR_SITE = $(BR2_EXTERNAL_BONJOUR_PATH)/../..
BONJOUR_SITE_METHOD = local
BONJOUR_OVERRIDE_SRCDIR_RSYNC_EXCLUSIONS = --exclude=/build
BONJOUR_LICENSE = PROPRIETARY
BONJOUR_LICENSE_FILES = LICENSE
BONJOUR_REDISTRIBUTE = NO

BONJOUR_CONF_OPTS = \
	-DBONJOUR_STOCK_KERNEL=ON \
	-DBONJOUR_RESPONDER=$(if $(BR2_PACKAGE_BONJOUR_STANDARD),standard,classic)

# The driver usblp, and multicast; the USB host controller and the bridge are the board's.
define BONJOUR_LINUX_CONFIG_FIXUPS
	$(call KCONFIG_ENABLE_OPT,CONFIG_NET)
	$(call KCONFIG_ENABLE_OPT,CONFIG_INET)
	$(call KCONFIG_ENABLE_OPT,CONFIG_IP_MULTICAST)
	$(call KCONFIG_ENABLE_OPT,CONFIG_USB_SUPPORT)
	$(call KCONFIG_ENABLE_OPT,CONFIG_USB)
	$(call KCONFIG_ENABLE_OPT,CONFIG_USB_PRINTER)
endef

define BONJOUR_INSTALL_TARGET_CMDS
	DESTDIR=$(TARGET_DIR) $(BR2_CMAKE) --install $(@D) --component runtime
	DESTDIR=$(TARGET_DIR) $(BR2_CMAKE) --install $(@D) --component stock-kernel
	$(SED) 's/^MODEL=.*/MODEL=$(call qstrip,$(BR2_PACKAGE_BONJOUR_MODEL))/' \
		$(TARGET_DIR)/etc/default/bonjour
endef

# BusyBox init runs scripts whose names are S and a number.
define BONJOUR_INSTALL_INIT_SYSV
	DESTDIR=$(TARGET_DIR) $(BR2_CMAKE) --install $(@D) --component sysvinit
	ln -sf bonjour $(TARGET_DIR)/etc/init.d/S95bonjour
endef

define BONJOUR_INSTALL_INIT_SYSTEMD
	DESTDIR=$(TARGET_DIR) $(BR2_CMAKE) --install $(@D) --component systemd
endef

$(eval $(cmake-package))
