// Numbers by which routes and addresses are compared and found.
#pragma once

#include "NetlinkPtr.h"

#include <cstdint>

namespace netlink_route {

// A hash of all that libnl tells routes apart by: destination, table, type of service and priority. Two routes that
// differ in their next hops alone have the same key, and libnl holds one of them.
std::uint64_t routeKey(rtnl_route* route);

// The bytes of an IPv4 address as one number; 0 for null and for an address without bytes.
std::uint32_t ipv4Bytes(nl_addr* address);

} // namespace netlink_route
