// Keeps the caches of one manager true to the kernel where its notifications alone do not.
#pragma once

#include "CacheSync.h"
#include "DirtyTables.h"
#include "EventSocket.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

struct nl_cache;
struct nl_cache_mngr;
struct nl_object;

namespace netlink_route {

// All that the event thread needs beside libnl's cache manager. It belongs to the CacheManager, which releases it when
// the thread has been joined; the thread finds it by its own argument, the cache manager.
//
// The caches are read again ("resync") when the notifications do not tell what happened (see DirtyTables). The lock is
// held only while small slices of the outcome are applied.
class CacheMirror {
public:
    // Caches that the manager does not have are null.
    struct Caches {
        nl_cache* link = nullptr;
        nl_cache* route = nullptr;
        nl_cache* addr = nullptr;
    };

    CacheMirror() = default;
    ~CacheMirror();
    CacheMirror(CacheMirror const&) = delete;
    CacheMirror& operator=(CacheMirror const&) = delete;

    // ---- Start, in this order, before the event thread runs ----

    // Allocates a cache manager, and its mirror with the sockets of the notifications. Returns libnl's result; without
    // success there is neither.
    static int allocate(nl_cache_mngr** manager, std::unique_ptr<CacheMirror>& mirror);

    // Takes the caches, which libnl has filled, and corrects what libnl gets wrong there.
    void begin(Caches const& filled) noexcept;

    // ---- The event thread ----

    // The mirror of a manager that runs.
    static CacheMirror* of(nl_cache_mngr* cacheManager);

    // The milliseconds after which the thread must wake by itself, -1: never.
    int untilDue() const { return dirty.untilDue(Clock::now()); }

    // The first and the last call at the start and after each poll: between them waitForEvents() waits. finish() returns
    // untilDue(). The first wake() opens the socket of the readings and attaches the filters. The event thread calls it,
    // since it would make a start a third longer; begin() does when something must be read at once.
    void wake();
    int finish();

    // Before and after nl_cache_mngr_data_ready, whose result endPass() takes; and for each change that it applies.
    void beginPass();
    void endPass(int result);
    void noteChange(nl_cache* cache, nl_object* object, int action) noexcept;

    // Reads what may differ from the kernel, if it is time for that.
    void resync();

    // Notifications may be missing: every table may differ from the kernel.
    void noteOverrun() { dirty.noteOverrun(); }

    // ---- The threads of the callers ----

    // Waits until the event thread has applied what is queued, for a tenth of a second at most. The kernel queues the
    // notifications of a change before it acknowledges the request for it.
    void waitForEvents();

    // Whether the cache has the addresses of each link in the kernel's order.
    bool areAddressesInOrder() const { return addressesInOrder; }

    // Has the kernel tell how the link is, as if it had changed.
    void askForLink(std::string const& name) const { events.askForLink(name); }

    // Makes the pass or the reading of the moment end soon, so that the thread can be cancelled.
    void stop();

private:
    using Clock = DirtyTables::Clock;

    int countObjects() const;
    int attach(nl_cache_mngr* cacheManager);
    void takeNotices();
    bool resyncLinks();
    bool resyncAddresses();
    bool resyncRoutes();
    bool resyncRoutesOfLinks();

    nl_cache_mngr* manager = nullptr;
    Caches caches;
    EventSocket events;
    KernelReader reader;
    DirtyTables dirty;
    std::atomic<bool> addressesInOrder{true};
    bool started = false;        // wake() was called
    int changes = 0;             // that libnl has told of in this pass
    int expected = 0;            // objects in the caches: those before this pass, and what libnl has told since
    CacheMirror* next = nullptr; // in the registry

    std::mutex busyMutex;
    std::condition_variable idle;
    bool busy = false; // from wake() to finish(), and while all tables are dirty
};

} // namespace netlink_route
