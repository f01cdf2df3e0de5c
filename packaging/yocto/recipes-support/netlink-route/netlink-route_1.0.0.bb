SUMMARY = "Reads and changes the kernel's links, VLANs, IPv4 addresses and routes"
HOMEPAGE = "TO BE FILLED IN"
SECTION = "libs"
# There is no licence file: the recipe can be neither shared nor pass licence checks.
LICENSE = "CLOSED"
#LIC_FILES_CHKSUM = "file://LICENSE;md5=..."

SRC_URI = "file://netlink_route-${PV}.tar.gz"
#SRC_URI = "git://HOST/netlink_route.git;protocol=https;branch=main;tag=v${PV}"
S = "${UNPACKDIR}/netlink_route-${PV}"

DEPENDS = "libnl"
inherit cmake pkgconfig

EXTRA_OECMAKE = " \
    -DNETLINK_ROUTE_EXAMPLES=OFF \
    -DNETLINK_ROUTE_TESTS=OFF \
    -DNETLINK_ROUTE_BENCH=OFF \
    -DCMAKE_SKIP_INSTALL_RPATH=ON \
"
PACKAGECONFIG ??= ""
PACKAGECONFIG[tools] = "-DNETLINK_ROUTE_TOOLS=ON,-DNETLINK_ROUTE_TOOLS=OFF"

PACKAGES =+ "${PN}-tools"
FILES:${PN}-tools = "${bindir}"
# libnl-3-200 and libnl-route-3-200 come in by the automatic shared library dependencies.
RRECOMMENDS:${PN} += "kernel-module-8021q"
BBCLASSEXTEND = "native nativesdk"
