#include "CacheMirror.h"

#include "CacheSearch.h"
#include "CacheSetup.h"
#include "LockQueue.h"
#include "Memory.h"

#include <netlink/cache.h>
#include <netlink/errno.h>
#include <netlink/object.h>
#include <new>
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
    *manager = nullptr;
    mirror.reset(new (std::nothrow) CacheMirror);
    int result = mirror != nullptr ? allocateManager(manager) : -NLE_NOMEM;
    if (result == 0) {
        result = mirror->open(*manager);
    }
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

void CacheMirror::begin(Caches const& filled) noexcept
{
    assumeEventThread();
    caches = filled;
    bool const done = fitsInMemory([&] {
        assumeEventThread();
        correctFilling();
    });
    if (!done) {
        dirty.noteLoss();
    }
    repair.share();
    MutexLock const guard(registryMutex);
    next = registry;
    registry = this;
}

// The routes are read here, since libnl did not (see addRouteCache); so the kernel's routes to each destination are known
// from the start, of which libnl's cache holds one. When libnl fails to fill a cache, it takes the rest of that answer for
// the one to its next request: so the caches that there are may be wrong. And a notification that waits already may be of
// an address as the filling shows it: libnl will put it at the end of its cache without a callback.
void CacheMirror::correctFilling()
{
    if (caches.link == nullptr || caches.route == nullptr || caches.addr == nullptr) {
        dirty.noteLoss();
    }
    dirty.noteRoutes();
    if (caches.addr != nullptr) {
        dropOtherFamilies(caches.addr);
        if (holdsAddressTwice(caches.addr)) {
            dirty.noteAddresses();
        }
    }
    repair.readWhatIsDue();
    if (!events.isEmpty()) {
        dirty.noteAddresses();
    }
}

// ---- The event thread ----

int CacheMirror::untilDue() const
{
    assumeEventThread();
    return dirty.untilDue(DirtyTables::Clock::now());
}

void CacheMirror::takeTurn(bool hasArrived, void (*applyLocked)(CacheMirror&)) noexcept
{
    assumeEventThread();
    turns.begin();
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
    turns.end(!dirty.hasLoss()); // after a loss only a reading shows what has changed
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
        auto* const address = reinterpret_cast<rtnl_addr*>(object);
        dirty.noteAddress(address, action);
        if (action == NL_ACT_CHANGE && hasNeighbour(cache, address)) { // it is the last one in the cache now
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
    turns.beginReading();
    repair.readWhatIsDue();
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

} // namespace netlink_route
