################################################################################
#
# lumora
#
################################################################################

LUMORA_VERSION = 1.1.1
# This file is in packaging/buildroot of the sources.
LUMORA_SITE = $(realpath $(dir $(lastword $(MAKEFILE_LIST)))/../..)
LUMORA_SITE_METHOD = local
LUMORA_LICENSE = Apache-2.0
LUMORA_LICENSE_FILES = LICENSE packaging/debian/copyright
LUMORA_INSTALL_STAGING = YES
LUMORA_DEPENDENCIES = host-pkgconf cjson
LUMORA_CONF_OPTS = \
	-DBUILD_SHARED=ON \
	-DBUILD_TESTING=OFF \
	-DLUMORA_INSTALL_RUNPATH=OFF \
	-DLUMORA_WARNINGS_AS_ERRORS=OFF

ifeq ($(BR2_PACKAGE_LUMORA_PLATFORM_REFERENCE),y)
LUMORA_DEPENDENCIES += libcoap spdlog fmt
LUMORA_CONF_OPTS += -DLUMORA_PLATFORM=reference
else
LUMORA_CONF_OPTS += -DLUMORA_PLATFORM=external
endif

ifeq ($(BR2_PACKAGE_LUMORA_KEYS),y)
LUMORA_DEPENDENCIES += openssl
LUMORA_CONF_OPTS += -DLUMORA_LINK_DTLS=ON
else
LUMORA_CONF_OPTS += -DLUMORA_LINK_DTLS=OFF
endif

ifeq ($(BR2_PACKAGE_LUMORA_EXAMPLES),y)
LUMORA_CONF_OPTS += -DLUMORA_BUILD_EXAMPLES=ON
else
LUMORA_CONF_OPTS += -DLUMORA_BUILD_EXAMPLES=OFF
endif

ifeq ($(BR2_PACKAGE_LUMORA_TOOLS),y)
LUMORA_DEPENDENCIES += cli11 sqlite
LUMORA_CONF_OPTS += -DLUMORA_BUILD_TOOLS=ON
else
LUMORA_CONF_OPTS += -DLUMORA_BUILD_TOOLS=OFF
endif

$(eval $(cmake-package))
