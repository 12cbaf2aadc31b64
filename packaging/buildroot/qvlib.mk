################################################################################
# qvlib: the support library; the sources are taken from QVLIB_SITE
################################################################################

QVLIB_VERSION = 1.0.0
QVLIB_SITE = $(TOPDIR)/../qvlib
QVLIB_SITE_METHOD = local
QVLIB_LICENSE = PROPRIETARY
QVLIB_REDISTRIBUTE = NO
QVLIB_INSTALL_STAGING = YES
QVLIB_CONF_OPTS = \
	-DCMAKE_BUILD_TYPE=MinSizeRel \
	-DQVLIB_FIRMWARE=ON \
	-DQVLIB_BUILD_TOOLS=OFF \
	-DQVLIB_BUILD_TESTS=OFF \
	-DQVLIB_BUILD_BENCH=OFF \
	-DQVLIB_BUILD_EXAMPLES=OFF \
	-DQVLIB_BUILD_DOCS=OFF

$(eval $(cmake-package))
