#include "CacheMirror.h"

#include "CacheSearch.h"
#include "CacheSetup.h"
#include "LockQueue.h"
#include "Memory.h"

#include <ctime>
#include <linux/rtnetlink.h>
#include <netlink/cache.h>
#include <netlink/errno.h>
#include <netlink/object.h>
#include <new>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

namespace netlink_route {

// ---- The registry of the managers that run. It needs no construction, since a manager may be a global object. ----

namespace {

Mutex registryMutex;
CacheMirror* registry GUARDED_BY(registryMutex) = nullptr;

} // namespace

CacheMirror* CacheMirror::of(nl_cache_mngr* cacheManager)
{
    MutexLock const guard(registryMutex);
    CacheMirror* mirror = registry;
    while (mirror != nullptr && mirror->manager != cacheManager) {
        mirror = mirror->next;
    }
    return mirror;
}

CacheMirror::~CacheMirror()
{
    MutexLock const guard(registryMutex);
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
    if (mirror == nullptr) {
        return -NLE_NOMEM;
    }
    int result = allocateManager(manager);
    if (result < 0) {
        mirror.reset();
        return result;
    }
    result = mirror->open(*manager);
    if (result < 0) {
        nl_cache_mngr_free(*manager);
        *manager = nullptr;
        mirror.reset();
    }
    return result;
}

int CacheMirror::open(nl_cache_mngr* cacheManager)
{
    assumeEventThread();
    manager = cacheManager;
    int result = events.adopt(nl_cache_mngr_get_fd(manager));
    if (result == 0) {
        result = notices.open();
    }
    if (result == 0) {
        result = repair.open();
    }
    return result;
}

namespace {

rtnl_addr* toAddress(nl_object* object) { return reinterpret_cast<rtnl_addr*>(object); }

// Whether libnl has filled the cache with something else than the kernel's IPv4 routes: with route exceptions among
// them, which RTM_F_CLONED marks, or with IPv6 routes (see addRouteCache), of which there may have been none.
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

void CacheMirror::begin(Caches const& filled) noexcept
{
    assumeEventThread();
    caches = filled;
    repair.useCaches(caches, false);
    bool const done = fitsInMemory([&] {
        assumeEventThread();
        correctFilling();
    });
    if (!done) {
        dirty.noteLoss();
    }
    repair.useCaches(caches, true);
    MutexLock const guard(registryMutex);
    next = registry;
    registry = this;
}

// libnl takes route exceptions for routes. And when the kernel's addresses change during a dump, libnl asks for it
// again without removing what it has added, so an address may stand in the cache twice.
//
// A notification that waits already may be of an address that went before the cache of the addresses was filled. libnl
// will not tell of it, and the routes that the kernel dropped with it may stand in their cache: so they are read.
void CacheMirror::correctFilling()
{
    if (caches.route != nullptr && needsReading(caches.route)) {
        dirty.noteRoutes();
    }
    if (caches.addr != nullptr) {
        dropOtherFamilies(caches.addr);
        if (holdsAddressTwice(caches.addr)) {
            dirty.noteAddresses();
        }
    }
    repair.readWhatIsDue();
    if (!events.isEmpty()) {
        dirty.noteRoutes();
    }
}

void CacheMirror::setThread(pthread_t thread) { pthread_getcpuclockid(thread, &threadClock); }

// ---- The event thread ----

int CacheMirror::untilDue() const
{
    assumeEventThread();
    return dirty.untilDue(DirtyTables::Clock::now());
}

void CacheMirror::takeTurn(bool hasArrived, void (*applyLocked)(CacheMirror&)) noexcept
{
    assumeEventThread();
    beginWork();
    bool const done = fitsInMemory([&] {
        assumeEventThread();
        if (hasArrived) {
            letWaitersGo();
            applyLocked(*this);
        }
        takeNotices();
        readWhatIsDue();
    });
    if (!done) {
        dirty.noteLoss();
        usleep(10000); // what is queued would wake the thread again at once
    }
    endWork();
}

int CacheMirror::countObjects() const
{
    int count = 0;
    for (nl_cache* const cache : {caches.link, caches.route, caches.addr}) {
        count += cache != nullptr ? nl_cache_nitems(cache) : 0;
    }
    return count;
}

// libnl applies a changed object by removing the old one from the cache and adding the new one. When it has no memory
// to add it, the object is missing from the cache, and neither the result nor a callback tells. So the objects are
// counted: a number that the callbacks do not explain is a loss.
int CacheMirror::apply()
{
    assumeEventThread();
    changes = 0;
    expected = countObjects();
    int result = 0;
    {
        RunningPass const pass(events);
        result = nl_cache_mngr_data_ready(manager);
    }
    if (result == -NLE_MSGTYPE_NOSUPPORT) { // a route with an encapsulation that libnl does not know
        dirty.noteRoutes();
    } else if (result < 0) {
        dirty.noteLoss();
    }
    if (countObjects() != expected) {
        dirty.noteLoss();
    }
    return result;
}

void CacheMirror::noteChange(nl_cache* cache, nl_object* object, int action) noexcept
{
    assumeEventThread();
    bool const isOurs = cache == caches.link || cache == caches.route || cache == caches.addr;
    if (cache == nullptr || object == nullptr || !isOurs) {
        return;
    }
    if (++changes >= objectsAtOnce && hasWaiters()) { // in a flood of notifications the pass would not end
        endRunningPass();
    }
    expected += action == NL_ACT_NEW ? 1 : (action == NL_ACT_DEL ? -1 : 0);
    if (cache == caches.link) {
        dirty.noteLink(reinterpret_cast<rtnl_link*>(object), action);
    } else if (cache == caches.route) {
        dirty.noteRoute(reinterpret_cast<rtnl_route*>(object), action);
    } else {
        dirty.noteAddress(toAddress(object), action);
        if (action == NL_ACT_CHANGE && hasNeighbour(cache, toAddress(object))) { // it is the last one in the cache now
            dirty.noteAddresses();
        }
    }
}

void CacheMirror::takeNotices()
{
    NoticeSocket::Notices const taken = notices.take();
    if (taken.nexthops) {
        dirty.noteRoutes();
    }
    bool complete = !taken.overrun;
    for (int const link : taken.newQdiscs) {
        complete = events.askForLink(link) && complete;
    }
    if (!complete) {
        dirty.noteLoss();
    }
}

// A socket that has overrun reports it once (ENOBUFS), and the kernel drops further notifications until the socket has
// been read to its end. So the tables are read only after that: a change made before is in the answer, a later one is
// notified. Notifications that are queued during the reading are applied afterwards, and lead to the same end.
void CacheMirror::readWhatIsDue()
{
    if (dirty.hasLoss() && !events.isEmpty()) {
        return;
    }
    reading = true;
    repair.readWhatIsDue();
    reading = false;
}

void CacheMirror::beginWork()
{
    MutexLock const guard(workMutex);
    working = true;
}

void CacheMirror::endWork()
{
    {
        MutexLock const guard(workMutex);
        working = dirty.hasLoss(); // only a reading shows what was changed meanwhile
    }
    workEnded.notify_all();
}

// ---- The threads of the callers ----

void CacheMirror::stop()
{
    stopping = true;
    events.stop();
}

void CacheMirror::abandon()
{
    assumeEventThread();
    events.abandon();
    notices.abandon();
    repair.abandon();
}

// Whether the event thread has applied what was queued: a notification that is no longer queued is being applied, in a
// turn, or has been. If not, waits for the turn to end, and not longer than that time.
bool CacheMirror::hasCaughtUp(std::chrono::microseconds wait)
{
    MutexLock const guard(workMutex);
    if (events.isEmpty() && !working) {
        return true;
    }
    if (wait.count() > 0) {
        workMutex.waitFor(workEnded, wait);
    }
    return false;
}

namespace {

std::chrono::nanoseconds timeOn(clockid_t clock)
{
    timespec time{};
    clock_gettime(clock, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

} // namespace

// Mostly the event thread needs less than 200 us, and to be woken takes as long again: so at first this thread only lets
// others run. Then it looks each millisecond how long the event thread has worked since. What counts is the processor
// time of that thread, its readings aside: the limit is for notifications that come without end, not for a large table
// or a busy processor.
void CacheMirror::waitForEvents()
{
    using namespace std::chrono_literals;
    using Clock = std::chrono::steady_clock;
    auto const start = Clock::now();
    while (Clock::now() < start + 200us) {
        if (hasCaughtUp(0us)) {
            return;
        }
        sched_yield();
    }
    std::chrono::nanoseconds worked{0};
    std::chrono::nanoseconds before = timeOn(threadClock);
    while (!hasCaughtUp(1ms) && worked < 100ms && Clock::now() < start + 1s) {
        std::chrono::nanoseconds const now = timeOn(threadClock);
        worked += reading ? 0ns : now - before;
        before = now;
    }
}

} // namespace netlink_route
