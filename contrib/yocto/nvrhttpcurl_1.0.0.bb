SUMMARY = "HTTP client library of a network video recorder"
LICENSE = "Apache-2.0"
LIC_FILES_CHKSUM = "file://LICENSE;md5=3b83ef96387f14655fc854ddc3c6bd57"

# A recipe of the device's layer provides its two libraries.
DEPENDS = "curl cjson virtual/libosp virtual/libappbase"

inherit cmake pkgconfig externalsrc

EXTERNALSRC = "${NVRHTTPCURL_TREE}"

EXTRA_OECMAKE = " \
    -DNVRHTTPCURL_HOST_PLATFORM=OFF \
    -DNVRHTTPCURL_BUILD_TESTS=OFF \
    -DNVRHTTPCURL_BUILD_TOOLS=OFF \
    -DNVRHTTPCURL_BUILD_EXAMPLES=OFF \
    -DNVRHTTPCURL_WERROR=OFF \
"

FILES:${PN} = "${libdir}/libnvrhttpcurl.so.*"
FILES:${PN}-dev = " \
    ${includedir}/nvrhttpcurl \
    ${libdir}/libnvrhttpcurl.so \
    ${libdir}/cmake/nvrhttpcurl \
    ${libdir}/pkgconfig/nvrhttpcurl.pc \
"
FILES:${PN}-doc = "${mandir} ${docdir}"
