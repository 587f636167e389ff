################################################################################
#
# zelkernel
#
################################################################################

ZELKERNEL_VERSION = main
# Where your copy of the repository is:
ZELKERNEL_SITE = file:///srv/git/zelkernel.git
ZELKERNEL_SITE_METHOD = git
# The owner has not chosen a licence yet.
ZELKERNEL_LICENSE = not chosen yet
ZELKERNEL_REDISTRIBUTE = NO
ZELKERNEL_INSTALL_STAGING = YES
ZELKERNEL_CONF_OPTS = \
	-DZELKERNEL_BUILD_TESTS=OFF \
	-DZELKERNEL_BUILD_PLATFORM=OFF

# zelkernel-check-wraps and the reports on recordings run where the
# application is built (host-zelkernel): no Python on the target.
define ZELKERNEL_INSTALL_TARGET_CMDS
	$(foreach component,runtime tools,\
		DESTDIR=$(TARGET_DIR) $(BR2_CMAKE) --install $(ZELKERNEL_BUILDDIR) \
			--component $(component)$(sep))
endef

define HOST_ZELKERNEL_BUILD_CMDS
endef

define HOST_ZELKERNEL_INSTALL_CMDS
	$(BR2_CMAKE) --install $(HOST_ZELKERNEL_BUILDDIR) --component host-tools
endef

HOST_ZELKERNEL_CONF_OPTS = $(ZELKERNEL_CONF_OPTS)

# Routing instances, TUN devices and marks are the kernel's.
define ZELKERNEL_LINUX_CONFIG_FIXUPS
	$(call KCONFIG_ENABLE_OPT,CONFIG_NET_NS)
	$(call KCONFIG_ENABLE_OPT,CONFIG_TUN)
	$(call KCONFIG_ENABLE_OPT,CONFIG_IP_ADVANCED_ROUTER)
	$(call KCONFIG_ENABLE_OPT,CONFIG_IP_MULTIPLE_TABLES)
	$(call KCONFIG_ENABLE_OPT,CONFIG_IPV6_MULTIPLE_TABLES)
	$(call KCONFIG_ENABLE_OPT,CONFIG_IP_NF_MANGLE)
	$(call KCONFIG_ENABLE_OPT,CONFIG_IP6_NF_MANGLE)
	$(call KCONFIG_ENABLE_OPT,CONFIG_NETFILTER_XT_TARGET_MARK)
endef

$(eval $(cmake-package))
$(eval $(host-cmake-package))
