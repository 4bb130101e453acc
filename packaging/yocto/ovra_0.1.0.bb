# For Yocto 4.0 and later. Not run here: a test checks the options, files and checksums it relies on.
# OVRA_REPOSITORY and SRCREV say where the sources come from: set both in your layer.
SUMMARY = "Support library for applications on embedded Linux: tasks, logging, files"
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=bc16431ee6351201a4bea50b3fb3c65d"

SRC_URI = "git://${OVRA_REPOSITORY};protocol=https;branch=main"
S = "${WORKDIR}/git"

inherit cmake

EXTRA_OECMAKE = "-DOVRA_BUILD_TESTS=OFF -DOVRA_BUILD_EXAMPLES=OFF -DOVRA_WARNINGS_AS_ERRORS=OFF"

PACKAGECONFIG ??= "extra"
PACKAGECONFIG[extra] = "-DOVRA_BUILD_EXTRA=ON,-DOVRA_BUILD_EXTRA=OFF"

# The second library on its own. Headers, links and what CMake and pkg-config read go into ${PN}-dev.
PACKAGES =+ "${PN}-extra"
FILES:${PN}-extra = "${libdir}/libovra-extra.so.*"
FILES:${PN} = "${libdir}/libovra.so.*"
FILES:${PN}-dev += "${libdir}/cmake/ovra"
