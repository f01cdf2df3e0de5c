#include "TableRepair.h"

#include "EventSocket.h"
#include "ProcessorTime.h"
#include "RouteKey.h"

#include <iterator>
#include <linux/rtnetlink.h>
#include <netlink/errno.h>
#include <optional>
#include <utility>

namespace netlink_route {

int TableRepair::open()
{
    int const result = reader.open();
    return result == 0 && !reader.waitForKernel() ? -NLE_FAILURE : result;
}

void TableRepair::readWhatIsDue()
{
    using Clock = DirtyTables::Clock;
    if (dirty.areCausesDue(Clock::now())) { // first, since it costs little
        std::chrono::nanoseconds const start = timeOn(CLOCK_THREAD_CPUTIME_ID);
        bool const complete = readRoutesOfCauses();
        dirty.noteCausesRead(timeOn(CLOCK_THREAD_CPUTIME_ID) - start, Clock::now(), complete);
    }
    if (dirty.areTablesDue(Clock::now())) {
        std::chrono::nanoseconds const start = timeOn(CLOCK_THREAD_CPUTIME_ID);
        bool const complete = readTables();
        dirty.noteTablesRead(timeOn(CLOCK_THREAD_CPUTIME_ID) - start, Clock::now(), complete);
    }
}

// ---- Whole tables ----

bool TableRepair::readTables()
{
    bool const hadLoss = dirty.hasLoss();
    bool const complete = readLinks() && readAddresses() && readRoutes();
    if (!complete && hadLoss) {
        dirty.noteLoss();
    }
    return complete;
}

bool TableRepair::readLinks()
{
    if (!dirty.takeLinks() || caches.link == nullptr) {
        return true;
    }
    std::optional<Objects> fresh = reader.readLinks();
    return fresh.has_value() && makeLinksEqual(caches.link, std::move(*fresh), slices()).complete;
}

// The change callback tells of an address that goes, but not when a reading has removed it from the cache before its
// notification is applied. So when a reading removes one, all routes become dirty.
//
// A notification that is queued during the reading may be of an address as the reading shows it. libnl then moves the
// address to the end of its cache without a callback, since nothing else changes. So the addresses are read once more.
bool TableRepair::readAddresses()
{
    if (!dirty.takeAddresses() || caches.addr == nullptr) {
        return true;
    }
    std::optional<Objects> fresh = reader.readIpv4Addresses();
    if (!fresh.has_value()) {
        dirty.noteAddresses();
        return false;
    }
    bool const wasOvertaken = !events.isEmpty();
    Applied const applied = makeAddressesEqual(caches.addr, std::move(*fresh), slices());
    if (applied.removed) {
        dirty.noteRoutes();
    }
    if (wasOvertaken || !applied.complete) {
        dirty.noteAddresses();
    }
    return applied.complete;
}

// Whether something was notified during a reading of routes. Since Linux 6.9 the kernel dumps routes in the middle of a
// change, too, whose notification comes a moment later.
bool TableRepair::hasBeenOvertaken() { return !reader.waitForKernel() || !events.isEmpty(); }

// What is notified during a reading of routes leads libnl astray when it is applied to what the reading has shown: the
// removal of one of two routes that libnl cannot tell apart removes the other one, since the reading has put that into
// the cache. And a dump comes in pieces, of which the kernel finds the next one by counting routes: when one was removed
// meanwhile, it may skip another. So all routes are read once more.
bool TableRepair::readRoutes()
{
    if (!dirty.takeRoutes() || caches.route == nullptr) {
        return true;
    }
    dirty.setSharedKeys(std::nullopt);
    std::optional<Objects> fresh;
    if (reader.waitForKernel()) {
        fresh = reader.readRoutes();
    }
    if (!fresh.has_value()) {
        dirty.noteRoutes();
        return false;
    }
    bool const wasOvertaken = hasBeenOvertaken();
    dirty.setNexthopObjects(reader.mayHaveNexthopObjects());
    auto sharedKeys = makeRoutesEqual(caches.route, std::move(*fresh), slices());
    bool const complete = sharedKeys.has_value();
    if (wasOvertaken || !complete) {
        dirty.noteRoutes();
    }
    dirty.setSharedKeys(std::move(sharedKeys));
    return complete;
}

// ---- The routes of some links ----

// The kernel notifies most of the routes that go with an address, a moment after the address. So when notifications have
// come until the kernel is done, they are applied first: mostly no route is in question then. And an answer that was
// overtaken (see readRoutes()) is asked for again. That goes on for ten turns at most, since others may change something
// without pause: then all routes are read once more.
bool TableRepair::readRoutesOfCauses()
{
    constexpr int most = 10;
    int const before = std::exchange(timesPutOff, 0);
    bool const mayPutOff = before < most;
    DirtyTables::Causes const causes = dirty.takeCauses();
    if (caches.route == nullptr) {
        return true;
    }
    Suspects const suspects = findSuspects(causes);
    if (suspects.routes.empty() && !suspects.needAll) {
        return true;
    }
    if (!reader.waitForKernel()) {
        dirty.putBack(causes);
        return false;
    }
    if (mayPutOff && !events.isEmpty()) {
        return putOff(causes, before + 1);
    }
    std::optional<Objects> fresh = suspects.needAll ? std::nullopt : readRoutesOf(suspects.links);
    if (!fresh.has_value()) {
        dirty.noteRoutes();
        return true;
    }
    if (hasBeenOvertaken()) {
        if (mayPutOff) {
            return putOff(causes, before + 1);
        }
        dirty.noteRoutes();
    }
    bool const complete = removeStaleRoutes(caches.route, suspects.routes, std::move(*fresh), slices()).complete;
    if (!complete) {
        dirty.putBack(causes);
    }
    return complete;
}

bool TableRepair::putOff(DirtyTables::Causes const& causes, int times)
{
    timesPutOff = times;
    dirty.putBack(causes);
    return true;
}

namespace {

template <typename Function>
void forEachHop(rtnl_route* route, Function function)
{
    for (int i = 0; i < rtnl_route_get_nnexthops(route); ++i) {
        function(rtnl_route_nh_get_ifindex(rtnl_route_nexthop_n(route, i)));
    }
}

// With net.ipv4.nexthop_compat_mode 0 the kernel does not tell the hops of a route that has a nexthop object.
bool mayHideHops(rtnl_route* route)
{
    return rtnl_route_get_nnexthops(route) == 0 && rtnl_route_get_type(route) == RTN_UNICAST;
}

} // namespace

TableRepair::Suspects TableRepair::findSuspects(DirtyTables::Causes const& causes)
{
    Suspects suspects;
    suspects.needAll = causes.links.isOverflown() || causes.addresses.isOverflown();
    nl_object* object = suspects.needAll ? nullptr : nl_cache_get_first(caches.route);
    for (; object != nullptr; object = nl_cache_get_next(object)) {
        auto* const route = reinterpret_cast<rtnl_route*>(object);
        bool isSuspect = mayHideHops(route) || causes.addresses.contains(ipv4Bytes(rtnl_route_get_pref_src(route)));
        forEachHop(route, [&](int link) { isSuspect = isSuspect || causes.links.contains(link); });
        std::uint64_t const key = isSuspect ? routeKey(route) : 0;
        if (!isSuspect || causes.renewed.contains(key)) {
            continue;
        }
        suspects.routes.push_back(object);
        forEachHop(route, [&](int link) { suspects.links.insert(link); });
        bool const hasHops = rtnl_route_get_nnexthops(route) != 0;
        suspects.needAll = suspects.needAll || !hasHops || suspects.links.isOverflown() || dirty.mayShare(key);
    }
    return suspects;
}

// std::nullopt, as on failure, when the kernel is too old to be asked for them.
std::optional<Objects> TableRepair::readRoutesOf(NumberSet<int> const& links)
{
    Objects routes;
    for (int const link : links) {
        std::optional<Objects> answer = reader.readRoutesOf(link);
        if (!answer.has_value()) {
            return std::nullopt;
        }
        std::move(answer->begin(), answer->end(), std::back_inserter(routes));
    }
    return routes;
}

} // namespace netlink_route
