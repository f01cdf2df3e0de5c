#include "TableRepair.h"

#include "EventSocket.h"
#include "RouteKey.h"

#include <ctime>
#include <iterator>
#include <linux/rtnetlink.h>
#include <optional>
#include <utility>

namespace netlink_route {

void TableRepair::useCaches(Caches const& toRepair, bool lock)
{
    caches = toRepair;
    lockSlices = lock;
}

namespace {

// Of the calling thread: on a busy machine the clock on the wall would make a reading look expensive.
std::chrono::nanoseconds processorTime()
{
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

} // namespace

void TableRepair::readWhatIsDue()
{
    using Clock = DirtyTables::Clock;
    if (dirty.areCausesDue(Clock::now())) { // first, since it costs little
        std::chrono::nanoseconds const start = processorTime();
        bool const complete = readRoutesOfCauses();
        dirty.noteCausesRead(processorTime() - start, Clock::now(), complete);
    }
    if (dirty.areTablesDue(Clock::now())) {
        std::chrono::nanoseconds const start = processorTime();
        bool const complete = readTables();
        dirty.noteTablesRead(processorTime() - start, Clock::now(), complete);
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

// A dump comes in pieces, and the kernel finds the next piece by counting routes: when one was removed meanwhile, it may
// skip another. A notification that is queued during the reading may tell of that, so all routes are read once more.
bool TableRepair::readRoutes()
{
    if (!dirty.takeRoutes() || caches.route == nullptr) {
        return true;
    }
    dirty.setSharedKeys(std::nullopt);
    std::optional<KernelReader::Routes> fresh;
    if (reader.waitForKernel()) {
        fresh = reader.readRoutes();
    }
    if (!fresh.has_value()) {
        dirty.noteRoutes();
        return false;
    }
    bool const maySkip = !fresh->inOnePiece && !events.isEmpty();
    dirty.setNexthopObjects(reader.mayHaveNexthopObjects());
    auto sharedKeys = makeRoutesEqual(caches.route, std::move(fresh->routes), slices());
    bool const complete = sharedKeys.has_value();
    if (maySkip || !complete) {
        dirty.noteRoutes();
    }
    dirty.setSharedKeys(std::move(sharedKeys));
    return complete;
}

// ---- The routes of some links ----

// The kernel notifies most of the routes that go with an address, a moment after the address. So when notifications have
// come until the kernel is done, they are applied first: mostly no route is in question then. Not twice in a row, since
// others may change something without pause.
bool TableRepair::readRoutesOfCauses()
{
    bool const hadPutOff = std::exchange(hasPutOff, false);
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
    hasPutOff = !hadPutOff && !events.isEmpty();
    if (hasPutOff) {
        dirty.putBack(causes);
        return true;
    }
    if (suspects.needAll) {
        dirty.noteRoutes();
        return true;
    }
    bool const complete = readRoutesOf(suspects);
    if (!complete) {
        dirty.putBack(causes);
    }
    return complete;
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
        if (!isSuspect || causes.renewed.contains(routeKey(route))) {
            continue;
        }
        suspects.routes.push_back(object);
        forEachHop(route, [&](int link) { suspects.links.insert(link); });
        bool const hasHops = rtnl_route_get_nnexthops(route) != 0;
        suspects.needAll = suspects.needAll || !hasHops || suspects.links.isOverflown() || dirty.mayShareKey(route);
    }
    return suspects;
}

// Asks for the routes of each link that the suspects' hops use, and removes the suspects that the kernel does not have.
bool TableRepair::readRoutesOf(Suspects const& suspects)
{
    if (suspects.mayHide) {
        dirty.noteRoutes();
    }
    Objects fresh;
    for (int const link : suspects.links) {
        std::optional<KernelReader::Routes> answer = reader.readRoutesOf(link);
        if (!answer.has_value()) { // perhaps the kernel is too old
            dirty.noteRoutes();
            return true;
        }
        if (!answer->inOnePiece && !events.isEmpty()) { // it may skip a route, as in readRoutes()
            dirty.noteRoutes();
        }
        std::move(answer->routes.begin(), answer->routes.end(), std::back_inserter(fresh));
    }
    return removeStaleRoutes(caches.route, suspects.routes, std::move(fresh), slices()).complete;
}

} // namespace netlink_route
