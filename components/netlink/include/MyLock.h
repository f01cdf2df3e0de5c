#pragma once

#include "Export.h"

#include <pthread.h>
#include <string>

// Guards every access to the caches, of all managers in the process. Not recursive: whoever holds it must not
// call a query of CacheManager.
extern NETLINK_ROUTE_API pthread_mutex_t mutex_man;

namespace netlink_route {

// Holds mutex_man from its construction to its destruction. The reason is what the trace shows.
class NETLINK_ROUTE_API MyLock {
public:
    explicit MyLock(std::string reason);
    ~MyLock();
    MyLock(MyLock const&) = delete;
    MyLock& operator=(MyLock const&) = delete;

private:
    std::string reason;
};

} // namespace netlink_route
