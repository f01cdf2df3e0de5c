#include "DirtyTables.h"

#include "RouteKey.h"

#include <linux/if.h>

namespace netlink_route {

void DirtyTables::noteLink(rtnl_link* link, int action)
{
    unsigned int const flags = rtnl_link_get_flags(link);
    bool const hasRoutes = action != NL_ACT_NEW;
    bool const lostCarrier = nexthopObjects && (flags & IFF_RUNNING) == 0;
    if (hasRoutes && ((flags & IFF_UP) == 0 || lostCarrier)) { // a link that goes away is notified as down
        causes.links.insert(rtnl_link_get_ifindex(link));
        causes.renewed = {};
    }
}

void DirtyTables::noteAddress(rtnl_addr* address, int action)
{
    if (action == NL_ACT_DEL) {
        causes.links.insert(rtnl_addr_get_ifindex(address));
        causes.addresses.insert(ipv4Bytes(rtnl_addr_get_local(address)));
        causes.renewed = {};
    }
}

// NL_ACT_CHANGE: the route was replaced, or another one with the same key was added beside it; the messages look alike.
// With nexthop objects the two may be identical to libnl, which then calls nothing when the second is added: so any
// route that goes may have been one of two.
void DirtyTables::noteRoute(rtnl_route* route, int action)
{
    std::uint64_t const key = routeKey(route);
    if (action == NL_ACT_CHANGE || (action == NL_ACT_DEL && (nexthopObjects || mayShare(key)))) {
        routes = true;
    }
    if (action != NL_ACT_DEL && isAnyCause()) {
        causes.renewed.insert(key);
    }
}

bool DirtyTables::mayShare(std::uint64_t key) const
{
    return !sharedKeys.has_value() || std::binary_search(sharedKeys->begin(), sharedKeys->end(), key);
}

void DirtyTables::noteLoss()
{
    links = true;
    addresses = true;
    routes = true;
}

namespace {

DirtyTables::Clock::time_point pauseAfter(std::chrono::nanoseconds cost, DirtyTables::Clock::time_point end,
                                          bool complete)
{
    constexpr std::chrono::milliseconds small{1};
    constexpr std::chrono::milliseconds afterFailure{10}; // the cause may be gone by then
    std::chrono::nanoseconds const pause = cost < small ? std::chrono::nanoseconds(0) : 9 * cost;
    return end + (complete ? pause : std::max<std::chrono::nanoseconds>(pause, afterFailure));
}

} // namespace

void DirtyTables::noteTablesRead(std::chrono::nanoseconds cost, Clock::time_point end, bool complete)
{
    nextTables = pauseAfter(cost, end, complete);
}

void DirtyTables::noteCausesRead(std::chrono::nanoseconds cost, Clock::time_point end, bool complete)
{
    nextCauses = pauseAfter(cost, end, complete);
}

int DirtyTables::untilDue(Clock::time_point now) const
{
    if (!isAnyTable() && !isAnyCause()) {
        return -1;
    }
    auto const due = std::min(isAnyTable() ? nextTables : Clock::time_point::max(),
                              isAnyCause() ? nextCauses : Clock::time_point::max());
    auto const wait = std::chrono::ceil<std::chrono::milliseconds>(due - now).count();
    return static_cast<int>(std::max<decltype(wait)>(wait, 0));
}

} // namespace netlink_route
