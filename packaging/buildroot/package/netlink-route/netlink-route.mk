################################################################################
#
# netlink-route
#
################################################################################

NETLINK_ROUTE_VERSION = 1.0.0
NETLINK_ROUTE_SOURCE = netlink_route-$(NETLINK_ROUTE_VERSION).tar.gz
# No public place yet: put the archive into BR2_DL_DIR/netlink-route, and
# its checksum, which scripts/release.sh prints, into netlink-route.hash.
NETLINK_ROUTE_SITE = http://example.invalid
# No licence yet: legal-info warns, and says "unknown".
#NETLINK_ROUTE_LICENSE =
#NETLINK_ROUTE_LICENSE_FILES =
NETLINK_ROUTE_INSTALL_STAGING = YES
NETLINK_ROUTE_DEPENDENCIES = host-pkgconf libnl
NETLINK_ROUTE_CONF_OPTS = \
	-DNETLINK_ROUTE_EXAMPLES=OFF \
	-DNETLINK_ROUTE_TESTS=OFF \
	-DNETLINK_ROUTE_BENCH=OFF \
	-DNETLINK_ROUTE_TOOLS=$(if $(BR2_PACKAGE_NETLINK_ROUTE_TOOLS),ON,OFF)

$(eval $(cmake-package))
