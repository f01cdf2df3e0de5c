/// @file
#pragma once

#include "Export.h"

#include <pthread.h>
#include <string>

/// @relates netlink_route::MyLock
/// Guards every access to the caches, of all managers in the process. Not recursive: whoever holds it must not
/// call a query of CacheManager.
extern NETLINK_ROUTE_API pthread_mutex_t mutex_man;

namespace netlink_route {

/// Stands for mutex_man in the analysis of thread safety: declared, and never made.
struct NETLINK_ROUTE_THREAD_SAFETY(capability("mutex")) CacheLock {};
/// Held by whoever holds mutex_man.
extern CacheLock const cacheLock;

/// Holds mutex_man from its construction to its destruction. What `why` says is shown by the trace.
///
/// Programs need it only to read libnl objects of the manager's caches; the queries lock for themselves.
class NETLINK_ROUTE_THREAD_SAFETY(scoped_lockable) NETLINK_ROUTE_API MyLock {
public:
    /// Waits until the lock is free, and takes it.
    explicit MyLock(std::string why) NETLINK_ROUTE_THREAD_SAFETY(acquire_capability(cacheLock));
    /// Releases it.
    ~MyLock() NETLINK_ROUTE_THREAD_SAFETY(release_capability());
    ///@{

    /// A lock is not copied.
    MyLock(MyLock const&) = delete;
    MyLock& operator=(MyLock const&) = delete;
    ///@}

private:
    std::string reason;
};

} // namespace netlink_route
