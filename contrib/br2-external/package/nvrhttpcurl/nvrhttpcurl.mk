################################################################################
#
# nvrhttpcurl
#
################################################################################

NVRHTTPCURL_VERSION = 1.0.0
NVRHTTPCURL_SITE = $(BR2_EXTERNAL_NVRHTTPCURL_PATH)/../..
NVRHTTPCURL_SITE_METHOD = local
NVRHTTPCURL_LICENSE = Apache-2.0
NVRHTTPCURL_LICENSE_FILES = LICENSE
NVRHTTPCURL_INSTALL_STAGING = YES
NVRHTTPCURL_DEPENDENCIES = cjson libcurl host-pkgconf
NVRHTTPCURL_CONF_OPTS = \
	-DNVRHTTPCURL_HOST_PLATFORM=OFF \
	-DNVRHTTPCURL_BUILD_TESTS=OFF \
	-DNVRHTTPCURL_BUILD_TOOLS=OFF \
	-DNVRHTTPCURL_BUILD_EXAMPLES=OFF \
	-DNVRHTTPCURL_WERROR=OFF

$(eval $(cmake-package))
