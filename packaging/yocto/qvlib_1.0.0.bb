SUMMARY = "Support library of embedded storage firmware"
SECTION = "libs"
LICENSE = "CLOSED"

inherit cmake externalsrc
EXTERNALSRC = "${TOPDIR}/../qvlib"

EXTRA_OECMAKE = "\
    -DCMAKE_BUILD_TYPE=MinSizeRel \
    -DQVLIB_FIRMWARE=ON \
    -DQVLIB_BUILD_TOOLS=OFF \
    -DQVLIB_BUILD_TESTS=OFF \
    -DQVLIB_BUILD_BENCH=OFF \
    -DQVLIB_BUILD_EXAMPLES=OFF \
    -DQVLIB_BUILD_DOCS=OFF \
"
