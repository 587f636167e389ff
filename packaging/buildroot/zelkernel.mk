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

$(eval $(cmake-package))
