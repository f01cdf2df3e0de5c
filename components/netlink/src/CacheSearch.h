// Searches in libnl's caches. The caller holds mutex_man, as clang checks, and keeps it until the result is released:
// libnl's reference counts are plain integers.
#pragma once

#include "MyLock.h"
#include "NetlinkPtr.h"

#include <string>
#include <vector>

namespace netlink_route {

#define WITH_LOCK NETLINK_ROUTE_THREAD_SAFETY(requires_capability(cacheLock))

// The link of that name, or null.
LinkPtr findLink(nl_cache* links, std::string const& name) WITH_LOCK;

// The names of all links, in the order of the cache.
std::vector<std::string> linkNames(nl_cache* links) WITH_LOCK;

// The first IPv4 address of the link with that index, in the order of the cache, or null.
AddrPtr findIpv4(nl_cache* addresses, int index) WITH_LOCK;

// The first route to exactly that destination, in the order of the cache, or null.
RoutePtr findRoute(nl_cache* routes, nl_addr* destination) WITH_LOCK;

// Whether the link of this IPv4 address has another one. For the event thread, which alone changes the cache.
bool hasNeighbour(nl_cache* addresses, rtnl_addr* address);

#undef WITH_LOCK

} // namespace netlink_route
