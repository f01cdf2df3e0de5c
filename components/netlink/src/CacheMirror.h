// Keeps the caches of one manager true to the kernel.
#pragma once

#include "DirtyTables.h"
#include "EventSocket.h"
#include "Locks.h"
#include "NoticeSocket.h"
#include "TableRepair.h"
#include "Turns.h"

#include <atomic>
#include <memory>
#include <pthread.h>
#include <string>

struct nl_cache_mngr;
struct nl_object;

namespace netlink_route {

// What the event thread does with libnl's cache manager, and what the threads of the callers wait for. It belongs to the
// CacheManager, which releases it when the event thread has been joined; that thread finds it by its own argument, the
// cache manager.
class CacheMirror {
public:
    CacheMirror() = default;
    ~CacheMirror();
    CacheMirror(CacheMirror const&) = delete;
    CacheMirror& operator=(CacheMirror const&) = delete;

    // ---- The constructor of the CacheManager, in this order ----

    // Allocates a cache manager, and its mirror with all sockets. Returns libnl's result; without success there is
    // neither.
    static int allocate(nl_cache_mngr** manager, std::unique_ptr<CacheMirror>& mirror);

    // Takes the caches, which libnl has filled, and corrects what libnl gets wrong there.
    void begin(Caches const& filled) noexcept;

    // Says which thread is the event thread.
    void setThread(pthread_t thread) { turns.setThread(thread); }

    // ---- The event thread ----

    // The mirror of a manager that runs, or null.
    static CacheMirror* of(nl_cache_mngr* cacheManager);

    // The milliseconds after which the thread must take a turn even if nothing arrives, -1: never.
    int untilDue() const;

    // One turn: applies what has arrived, if anything has, reads what is due, and tells those who wait. `applyLocked`
    // calls apply() under mutex_man.
    void takeTurn(bool hasArrived, void (*applyLocked)(CacheMirror&)) noexcept;

    // One pass: libnl reads the event socket until it is empty or hidden, and applies the notifications to the caches.
    // Returns libnl's result.
    int apply();

    // Notes a change that libnl has applied, unless the cache is none of the manager's, or there is no object.
    void noteChange(nl_cache* cache, nl_object* object, int action) noexcept;

    // ---- The threads of the callers ----

    // Waits until the event thread has applied what is queued (see Turns). The kernel queues the notifications of a
    // change before it acknowledges the request for it.
    void waitForEvents() { turns.wait(events); }

    // Has the kernel tell how the link is, as if it had changed.
    void askForLink(std::string const& name) const { events.askForLink(name); }

    // Makes the pass or the reading of the moment end soon, so that the thread can be cancelled.
    void stop();

    // In the child of a fork: closes the descriptors.
    void abandon();

private:
    int open(nl_cache_mngr* cacheManager);
    void correctFilling() REQUIRES(eventThread);
    int countObjects() const REQUIRES(eventThread);
    void takeNotices() REQUIRES(eventThread);
    void readWhatIsDue() REQUIRES(eventThread);

    nl_cache_mngr* manager = nullptr;
    CacheMirror* next = nullptr; // in the registry
    EventSocket events;
    Turns turns;
    std::atomic<bool> stopping{false};

    NoticeSocket notices GUARDED_BY(eventThread);
    DirtyTables dirty GUARDED_BY(eventThread);
    Caches caches GUARDED_BY(eventThread);
    TableRepair repair GUARDED_BY(eventThread){caches, dirty, events, stopping};
    int changes GUARDED_BY(eventThread) = 0; // that libnl has told of in this pass
    // Objects in the caches: those before this pass, and what libnl has told of since.
    int expected GUARDED_BY(eventThread) = 0;
};

} // namespace netlink_route
