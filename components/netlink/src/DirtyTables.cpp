#include "DirtyTables.h"

#include "CacheSync.h"

#include <algorithm>
#include <linux/if.h>
#include <netlink/cache.h>
#include <sys/socket.h>
#include <utility>

namespace netlink_route {

void DirtyTables::noteLink(rtnl_link* link, int action)
{
    unsigned int const flags = rtnl_link_get_flags(link);
    bool const hasRoutes = action != NL_ACT_NEW;
    bool const lostCarrier = nexthopObjects && (flags & IFF_RUNNING) == 0;
    if (hasRoutes && ((flags & IFF_UP) == 0 || lostCarrier)) { // a link that goes away is notified as down
        routesOverLinks.insert(rtnl_link_get_ifindex(link));
    }
}

void DirtyTables::noteAddress(rtnl_addr* address, int action)
{
    if (action == NL_ACT_DEL) {
        routesOverLinks.insert(rtnl_addr_get_ifindex(address));
        routesFromAddresses.insert(ipv4Bytes(rtnl_addr_get_local(address)));
    }
}

void DirtyTables::noteRoute(rtnl_route* route, int action)
{
    // NL_ACT_CHANGE: the route was replaced, or another one with the same key was added beside it; the messages look
    // alike. With nexthop objects the two may be identical to libnl, which then calls nothing when the second is added:
    // so any route that goes may have been one of two.
    routes = routes || action == NL_ACT_CHANGE || (action == NL_ACT_DEL && (nexthopObjects || isOneOfSeveral(route)));
}

bool DirtyTables::isOneOfSeveral(rtnl_route* route) const
{
    return !severalRoutesKnown || std::binary_search(severalRoutes.begin(), severalRoutes.end(), routeKey(route));
}

void DirtyTables::noteOverrun()
{
    overrun = true;
    noteAll();
}

void DirtyTables::noteAll()
{
    links = true;
    addresses = true;
    routes = true;
}

namespace {

DirtyTables::Clock::time_point pauseAfter(std::chrono::nanoseconds cost, DirtyTables::Clock::time_point end,
                                          bool complete)
{
    constexpr std::chrono::milliseconds afterFailure{10}; // the cause may be gone by then
    return end + std::max<std::chrono::nanoseconds>(9 * cost, complete ? std::chrono::nanoseconds(0) : afterFailure);
}

} // namespace

void DirtyTables::noteTablesRead(std::chrono::nanoseconds cost, Clock::time_point end, bool complete)
{
    nextTables = pauseAfter(cost, end, complete);
    if (complete) {
        overrun = false;
        links = false;
        addresses = std::exchange(addressesAfterwards, false);
        routes = std::exchange(routesAfterwards, false);
    }
}

void DirtyTables::noteRoutesOfLinksRead(std::chrono::nanoseconds cost, Clock::time_point end, bool complete)
{
    nextRoutesOfLinks = pauseAfter(cost, end, complete);
    if (complete) {
        routesOverLinks = {};
        routesFromAddresses = {};
    }
}

int DirtyTables::untilDue(Clock::time_point now) const
{
    if (!tables() && !routesOfLinks()) {
        return -1;
    }
    auto const due = std::min(tables() ? nextTables : Clock::time_point::max(),
                              routesOfLinks() ? nextRoutesOfLinks : Clock::time_point::max());
    auto const wait = std::chrono::ceil<std::chrono::milliseconds>(due - now).count();
    return static_cast<int>(std::max<decltype(wait)>(wait, 0));
}

} // namespace netlink_route
