################################################################################
#
# zelkernel
#
################################################################################

# scripts/package buildroot writes the version here and the archive's hash beside it.
ZELKERNEL_VERSION = 1.0.0
# Where your archives of the source are:
ZELKERNEL_SITE = file:///srv/archives
# The owner has not chosen a licence yet.
ZELKERNEL_LICENSE = not chosen yet
ZELKERNEL_REDISTRIBUTE = NO
ZELKERNEL_INSTALL_STAGING = YES
ZELKERNEL_SUPPORTS_IN_SOURCE_BUILD = NO
# With SystemTap's sys/sdt.h in the staging directory the library has the probe points that
# zelkernel-trace records; Buildroot has no package of it.
ZELKERNEL_CONF_OPTS = \
	-DZELKERNEL_BUILD_TESTS=OFF \
	-DZELKERNEL_BUILD_PLATFORM=OFF

# zelkernel-check-wraps and the reports on recordings run where the application is built
# (host-zelkernel): no Python on the target.
define ZELKERNEL_INSTALL_TARGET_CMDS
	$(foreach component,runtime tools,\
		$(TARGET_MAKE_ENV) DESTDIR=$(TARGET_DIR) \
			$(BR2_CMAKE) --install $(ZELKERNEL_BUILDDIR) \
			--component $(component)$(sep))
endef

HOST_ZELKERNEL_CONF_OPTS = $(ZELKERNEL_CONF_OPTS)

# Nothing of it is compiled.
define HOST_ZELKERNEL_BUILD_CMDS
endef

define HOST_ZELKERNEL_INSTALL_CMDS
	$(HOST_MAKE_ENV) $(BR2_CMAKE) --install $(HOST_ZELKERNEL_BUILDDIR) \
		--component host-tools
endef

# Routing instances, TUN devices and marks are the kernel's.
define ZELKERNEL_LINUX_CONFIG_FIXUPS
	$(call KCONFIG_ENABLE_OPT,CONFIG_NAMESPACES)
	$(call KCONFIG_ENABLE_OPT,CONFIG_NET_NS)
	$(call KCONFIG_ENABLE_OPT,CONFIG_TUN)
	$(call KCONFIG_ENABLE_OPT,CONFIG_IP_ADVANCED_ROUTER)
	$(call KCONFIG_ENABLE_OPT,CONFIG_IP_MULTIPLE_TABLES)
	$(call KCONFIG_ENABLE_OPT,CONFIG_IPV6)
	$(call KCONFIG_ENABLE_OPT,CONFIG_IPV6_MULTIPLE_TABLES)
	$(call KCONFIG_ENABLE_OPT,CONFIG_NETFILTER)
	$(call KCONFIG_ENABLE_OPT,CONFIG_NETFILTER_ADVANCED)
	$(call KCONFIG_ENABLE_OPT,CONFIG_NETFILTER_XTABLES)
	$(call KCONFIG_ENABLE_OPT,CONFIG_NETFILTER_XT_MARK)
	$(call KCONFIG_ENABLE_OPT,CONFIG_IP_NF_IPTABLES)
	$(call KCONFIG_ENABLE_OPT,CONFIG_IP_NF_MANGLE)
	$(call KCONFIG_ENABLE_OPT,CONFIG_IP6_NF_IPTABLES)
	$(call KCONFIG_ENABLE_OPT,CONFIG_IP6_NF_MANGLE)
endef

$(eval $(cmake-package))
$(eval $(host-cmake-package))
