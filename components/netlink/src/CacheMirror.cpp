#include "CacheMirror.h"

#include "CacheSearch.h"
#include "CacheSetup.h"
#include "LockQueue.h"
#include "Memory.h"
#include "NetlinkPtr.h"

#include <algorithm>
#include <ctime>
#include <iterator>
#include <linux/rtnetlink.h>
#include <netlink/errno.h>
#include <netlink/object.h>
#include <new>
#include <optional>
#include <sched.h>
#include <sys/socket.h>
#include <utility>

namespace netlink_route {

// ---- The registry of the managers that run. It needs no construction, since a manager may be a global object. ----

namespace {

std::mutex registryMutex;
CacheMirror* registry = nullptr;

} // namespace

CacheMirror* CacheMirror::of(nl_cache_mngr* cacheManager)
{
    std::lock_guard<std::mutex> const guard(registryMutex);
    CacheMirror* mirror = registry;
    while (mirror != nullptr && mirror->manager != cacheManager) {
        mirror = mirror->next;
    }
    return mirror;
}

CacheMirror::~CacheMirror()
{
    std::lock_guard<std::mutex> const guard(registryMutex);
    CacheMirror** link = &registry;
    while (*link != nullptr && *link != this) {
        link = &(*link)->next;
    }
    if (*link == this) {
        *link = next;
    }
}

// ---- Start ----

int CacheMirror::allocate(nl_cache_mngr** manager, std::unique_ptr<CacheMirror>& mirror)
{
    mirror.reset(new (std::nothrow) CacheMirror);
    int result = mirror != nullptr ? mirror->events.open() : -NLE_NOMEM;
    result = result < 0 ? result : allocateManager(manager);
    result = result < 0 ? result : mirror->attach(*manager);
    if (result < 0) {
        if (*manager != nullptr) {
            nl_cache_mngr_free(*manager);
            *manager = nullptr;
        }
        mirror.reset();
    }
    return result;
}

int CacheMirror::attach(nl_cache_mngr* cacheManager)
{
    manager = cacheManager;
    return events.adopt(nl_cache_mngr_get_fd(manager));
}

namespace {

rtnl_addr* toAddress(nl_object* object) { return reinterpret_cast<rtnl_addr*>(object); }

// Whether libnl has filled the cache with something else than the kernel's IPv4 routes: with route exceptions among
// them, which RTM_F_CLONED marks, or with IPv6 routes (see addRouteCache), of which there
// may have been none.
bool needsReading(nl_cache* routes)
{
    nl_object* object = nl_cache_get_first(routes);
    auto const isRoute = [](rtnl_route* route) {
        return rtnl_route_get_family(route) == AF_INET && (rtnl_route_get_flags(route) & RTM_F_CLONED) == 0;
    };
    bool isFine = object != nullptr;
    for (; object != nullptr && isFine; object = nl_cache_get_next(object)) {
        isFine = isRoute(reinterpret_cast<rtnl_route*>(object));
    }
    return !isFine;
}

void dropOtherFamilies(nl_cache* addresses)
{
    nl_object* following = nullptr;
    for (nl_object* object = nl_cache_get_first(addresses); object != nullptr; object = following) {
        following = nl_cache_get_next(object);
        if (rtnl_addr_get_family(toAddress(object)) != AF_INET) {
            nl_cache_remove(object);
        }
    }
}

} // namespace

// libnl takes route exceptions for routes. And when the kernel's addresses change during a dump, libnl asks for it
// again without removing what it has added, so an address may stand in the cache twice.
void CacheMirror::begin(Caches const& filled) noexcept
{
    caches = filled;
    bool const done = fitsInMemory([&] {
        dirty.routes = caches.route != nullptr && needsReading(caches.route);
        if (caches.addr != nullptr) {
            dropOtherFamilies(caches.addr);
            dirty.addresses = holdsAddressTwice(caches.addr);
        }
        // A notification that waits already may be of an address that went between the fillings of the two caches, and
        // of whose other routes the kernel tells nobody. So all is read, and at once: if the thread's first wake() found
        // it after a reading here, the next reading would have to wait for its budget.
        if (dirty.routes || dirty.addresses || !events.isEmpty()) {
            wake();
        }
        resync();
    });
    if (!done) {
        noteOverrun();
    }
    std::lock_guard<std::mutex> const guard(registryMutex);
    next = registry;
    registry = this;
}

// ---- The event thread ----

void CacheMirror::wake()
{
    {
        std::lock_guard<std::mutex> const guard(busyMutex);
        busy = true;
    }
    if (!started) {
        started = true;
        reader.open();
        if (events.attachFilters()) {
            dirty.noteAll();
        }
    }
}

int CacheMirror::finish()
{
    {
        std::lock_guard<std::mutex> const guard(busyMutex);
        busy = dirty.links; // only a reading shows what was changed meanwhile
    }
    idle.notify_all();
    return untilDue();
}

int CacheMirror::countObjects() const
{
    int count = 0;
    for (nl_cache* const cache : {caches.link, caches.route, caches.addr}) {
        count += cache != nullptr ? nl_cache_nitems(cache) : 0;
    }
    return count;
}

void CacheMirror::beginPass()
{
    changes = 0;
    expected = countObjects();
    events.beginPass();
}

// libnl applies a changed object by removing the old one from the cache and adding the new one. When it has no memory
// to add it, the object is missing from the cache, and neither the result nor a callback tells. So the objects are
// counted: a number that the callbacks do not explain means that all tables must be read.
void CacheMirror::endPass(int result)
{
    events.endPass();
    if (result < 0 || countObjects() != expected) {
        noteOverrun();
    }
}

void CacheMirror::noteChange(nl_cache* cache, nl_object* object, int action) noexcept
{
    if (++changes >= objectsAtOnce && hasWaiters()) { // in a flood of notifications the pass would not end
        EventSocket::endRunningPass();
    }
    expected += action == NL_ACT_NEW ? 1 : (action == NL_ACT_DEL ? -1 : 0);
    if (cache == caches.link) {
        dirty.noteLink(reinterpret_cast<rtnl_link*>(object), action);
    } else if (cache == caches.addr) {
        dirty.noteAddress(toAddress(object), action);
        if (action == NL_ACT_CHANGE && hasNeighbour(cache, toAddress(object))) { // it is the last one in the cache now
            addressesInOrder = false;
            dirty.addresses = true;
        }
    } else {
        dirty.noteRoute(reinterpret_cast<rtnl_route*>(object), action);
    }
}

void CacheMirror::takeNotices()
{
    EventSocket::Notices const notices = events.takeNotices();
    dirty.routes = dirty.routes || notices.nexthops;
    bool complete = !notices.overrun;
    for (int const link : notices.newQdiscs) {
        complete = (dirty.links || events.askForLink(link)) && complete; // a reading shows it, too
    }
    if (!complete) {
        noteOverrun();
    }
}

namespace {

std::chrono::nanoseconds processorTime()
{
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

} // namespace

// A socket that has overrun reports it once (ENOBUFS), and the kernel drops further notifications until the socket has
// been read to its end. So the tables are read only after that: a change made before is in the answer, a later one is
// notified. Notifications that are queued during the reading are applied afterwards, and lead to the same end.
void CacheMirror::resync()
{
    takeNotices();
    if (dirty.overrun && !events.isEmpty()) {
        return;
    }
    std::chrono::nanoseconds const start = processorTime();
    if (dirty.areRoutesOfLinksDue(Clock::now())) { // first, since it costs little
        bool const complete = resyncRoutesOfLinks();
        dirty.noteRoutesOfLinksRead(processorTime() - start, Clock::now(), complete);
    }
    if (dirty.areTablesDue(Clock::now())) {
        std::chrono::nanoseconds const middle = processorTime();
        bool const complete = reader.waitForKernel() && resyncLinks() && resyncAddresses() && resyncRoutes();
        dirty.noteTablesRead(processorTime() - middle, Clock::now(), complete);
    }
}

bool CacheMirror::resyncLinks()
{
    if (!dirty.links || caches.link == nullptr) {
        return true;
    }
    std::optional<Objects> fresh = reader.readLinks();
    return fresh.has_value() && makeLinksEqual(caches.link, std::move(*fresh), reader).complete;
}

// What a reading shows first, no callback tells afterwards. So with an address that went away, the routes become dirty.
bool CacheMirror::resyncAddresses()
{
    if (!dirty.addresses || caches.addr == nullptr) {
        return true;
    }
    std::optional<Objects> fresh = reader.readIpv4Addresses();
    if (!fresh.has_value()) {
        return false;
    }
    // A notification that is queued now may be of an address as the reading shows it. libnl then moves the address to
    // the end of its cache, and tells nobody, since nothing else changes. So the addresses are read once more.
    dirty.addressesAfterwards = !events.isEmpty();
    addressesInOrder = false;
    Applied const applied = makeAddressesEqual(caches.addr, std::move(*fresh), reader);
    dirty.routes = dirty.routes || applied.removed;
    addressesInOrder = applied.complete && !dirty.addressesAfterwards;
    return applied.complete;
}

bool CacheMirror::resyncRoutes()
{
    if (!dirty.routes || caches.route == nullptr) {
        return true;
    }
    std::optional<Objects> fresh = reader.readRoutes();
    if (!fresh.has_value()) {
        return false;
    }
    // A dump comes in pieces, and the kernel finds the next piece by counting routes: when one was removed meanwhile,
    // it may skip another. A notification that is queued now may tell of that, so all routes are read once more.
    dirty.routesAfterwards = !events.isEmpty();
    dirty.nexthopObjects = reader.mayHaveNexthopObjects();
    auto several = makeRoutesEqual(caches.route, std::move(*fresh), reader);
    dirty.severalRoutesKnown = several.has_value();
    dirty.severalRoutes = std::move(several).value_or(std::vector<std::uint64_t>());
    return dirty.severalRoutesKnown;
}

namespace {

template <typename Function>
void forEachHop(rtnl_route* route, Function function)
{
    for (int i = 0; i < rtnl_route_get_nnexthops(route); ++i) {
        function(rtnl_route_nh_get_ifindex(rtnl_route_nexthop_n(route, i)));
    }
}

// The first piece of a dump has about 4 KiB, and a route 60 bytes, and 16 for each hop.
constexpr std::size_t routesInOnePiece = 16;

} // namespace

// Collects the cached routes that the kernel may have dropped silently, asks for the routes of the links that their
// hops use, and removes those that the kernel does not have. Where that is not possible, all routes become dirty: with
// too many links, a route without a hop, or a kernel that cannot dump the routes of one link.
bool CacheMirror::resyncRoutesOfLinks()
{
    if (caches.route == nullptr) {
        return true;
    }
    std::vector<nl_object*> suspects;
    NumberSet<int> links;
    bool all = dirty.routesOverLinks.isOverflown() || dirty.routesFromAddresses.isOverflown();
    nl_object* object = all ? nullptr : nl_cache_get_first(caches.route);
    for (; object != nullptr; object = nl_cache_get_next(object)) {
        auto* const route = reinterpret_cast<rtnl_route*>(object);
        bool isSuspect = dirty.routesFromAddresses.contains(ipv4Bytes(rtnl_route_get_pref_src(route)));
        forEachHop(route, [&](int link) { isSuspect = isSuspect || dirty.routesOverLinks.contains(link); });
        if (isSuspect) {
            suspects.push_back(object);
            forEachHop(route, [&](int link) { links.insert(link); });
            all = all || rtnl_route_get_nnexthops(route) == 0;
            dirty.routes = dirty.routes || dirty.isOneOfSeveral(route);
        }
    }
    if (suspects.empty() && !all) {
        return true;
    }
    if (!reader.waitForKernel()) {
        return false;
    }
    Objects fresh;
    all = all || links.isOverflown();
    for (int const link : all ? NumberSet<int>() : links) {
        std::optional<Objects> routes = reader.readRoutesOf(link);
        if (!routes.has_value()) {
            all = true;
            break;
        }
        // A dump in pieces may have skipped a route that the kernel has (see resyncRoutes), which then goes wrongly.
        dirty.routes = dirty.routes || (routes->size() >= routesInOnePiece && !events.isEmpty());
        std::move(routes->begin(), routes->end(), std::back_inserter(fresh));
    }
    if (all) {
        dirty.routes = true;
        return true;
    }
    return removeStaleRoutes(caches.route, suspects, std::move(fresh), reader).complete;
}

// ---- The threads of the callers ----

void CacheMirror::stop()
{
    reader.stop();
    events.stop();
}

void CacheMirror::waitForEvents()
{
    constexpr std::chrono::milliseconds longest{100};
    constexpr std::chrono::milliseconds look{1};
    constexpr std::chrono::microseconds atFirst{200}; // mostly it takes less, and to be woken takes as long again
    auto const start = Clock::now();
    std::unique_lock<std::mutex> guard(busyMutex);
    // In this order: a notification that is no longer queued is being applied (busy), or has been.
    while (!events.isEmpty() || busy) {
        auto const now = Clock::now();
        if (now >= start + longest) {
            return;
        }
        if (now < start + atFirst) {
            guard.unlock();
            sched_yield();
            guard.lock();
        } else {
            idle.wait_until(guard, now + look);
        }
    }
}

} // namespace netlink_route
