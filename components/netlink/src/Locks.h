// Locks, and the role of the event thread, as clang's analysis of thread safety knows them (-Wthread-safety). To other
// compilers the annotations are nothing.
#pragma once

#include "Export.h"

#include <condition_variable>
#include <mutex>

#define GUARDED_BY(lock) NETLINK_ROUTE_THREAD_SAFETY(guarded_by(lock))
#define REQUIRES(lock) NETLINK_ROUTE_THREAD_SAFETY(requires_capability(lock))
#define ACQUIRES(lock) NETLINK_ROUTE_THREAD_SAFETY(acquire_capability(lock))
#define RELEASES(lock) NETLINK_ROUTE_THREAD_SAFETY(release_capability(lock))

namespace netlink_route {

class NETLINK_ROUTE_THREAD_SAFETY(capability("mutex")) Mutex {
public:
    void lock() ACQUIRES() { mutex.lock(); }
    void unlock() RELEASES() { mutex.unlock(); }

    // Waits with the mutex free, until the condition is notified or the time is over.
    template <typename Duration>
    void waitFor(std::condition_variable& condition, Duration time) REQUIRES(this)
    {
        std::unique_lock<std::mutex> held(mutex, std::adopt_lock);
        condition.wait_for(held, time);
        held.release();
    }

private:
    std::mutex mutex;
};

class NETLINK_ROUTE_THREAD_SAFETY(scoped_lockable) MutexLock {
public:
    explicit MutexLock(Mutex& toHold) ACQUIRES(toHold) : mutex(toHold) { mutex.lock(); }
    ~MutexLock() RELEASES() { mutex.unlock(); }
    MutexLock(MutexLock const&) = delete;
    MutexLock& operator=(MutexLock const&) = delete;

private:
    Mutex& mutex;
};

// Held by the event thread of a manager, and by its constructor before that thread runs. What requires this role needs no
// lock: no two threads have it at once. Declared, and never made.
struct NETLINK_ROUTE_THREAD_SAFETY(capability("role")) EventThread {};
extern EventThread const eventThread;

// Says to the analysis that the caller has the role: in the constructor, at the start of the event thread's work, and in
// what libnl calls during it.
inline void assumeEventThread() NETLINK_ROUTE_THREAD_SAFETY(assert_capability(eventThread)) {}

} // namespace netlink_route
