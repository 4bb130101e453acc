################################################################################
#
# ovra: not run here, see Config.in
#
################################################################################

OVRA_VERSION = 0.1.0
OVRA_SITE = $(call qstrip,$(BR2_PACKAGE_OVRA_SITE))
OVRA_LICENSE = MIT
OVRA_LICENSE_FILES = LICENSE
OVRA_INSTALL_STAGING = YES
OVRA_CONF_OPTS = \
	-DOVRA_BUILD_TESTS=OFF \
	-DOVRA_BUILD_EXAMPLES=OFF \
	-DOVRA_WARNINGS_AS_ERRORS=OFF \
	-DOVRA_BUILD_EXTRA=$(if $(BR2_PACKAGE_OVRA_EXTRA),ON,OFF)

$(eval $(cmake-package))
