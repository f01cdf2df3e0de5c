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

// The first IPv4 address of the link with that index, in the kernel's order, or null. libnl moves an address to the end
// of its cache when it is notified again, as at each renewal of its lifetime. Until the cache has been put into the
// kernel's order again, the time of their creation tells which address is the first.
AddrPtr findIpv4(nl_cache* addresses, int index, bool isInOrder) WITH_LOCK;

// Whether the link of this IPv4 address has another one. For the event thread, which alone changes the cache.
bool hasNeighbour(nl_cache* addresses, rtnl_addr* address);

// Of the routes to exactly that destination the one that the kernel lists first, or null. libnl moves a route to the
// end of its cache whenever it is replaced.
RoutePtr findRoute(nl_cache* routes, nl_addr* destination) WITH_LOCK;

#undef WITH_LOCK

} // namespace netlink_route
