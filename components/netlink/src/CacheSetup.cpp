#include "CacheSetup.h"

#include "Descriptor.h"

#include <cerrno>
#include <linux/rtnetlink.h>
#include <netlink/errno.h>
#include <netlink/netlink.h>
#include <netlink/route/addr.h>
#include <netlink/route/route.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

namespace netlink_route {

// libnl 3.7 aborts when it can open only the first of the two sockets that a cache manager needs. So two other
// descriptors are opened first, on trial.
int allocateManager(nl_cache_mngr** manager)
{
    {
        Descriptor const first(eventfd(0, EFD_CLOEXEC));
        Descriptor const second(eventfd(0, EFD_CLOEXEC));
        if (second.get() < 0) {
            return -nl_syserr2nlerr(errno);
        }
    }
    return nl_cache_mngr_alloc(nullptr, NETLINK_ROUTE, 0, manager);
}

int addCache(nl_cache_mngr* manager, nl_cache*& cache, change_func_t callback, void* data)
{
    if (cache == nullptr) {
        return 0;
    }
    int const result = manager != nullptr ? nl_cache_mngr_add_cache(manager, cache, callback, data) : 0;
    if (manager == nullptr || result < 0) {
        nl_cache_free(cache);
        cache = nullptr;
    }
    return result;
}

int addRouteCache(nl_cache_mngr* manager, nl_cache*& cache, change_func_t callback, void* data)
{
    if (cache != nullptr) {
        nl_cache_set_arg1(cache, RTNL_FAMILY_IPMR); // the family that libnl asks for
    }
    return addCache(manager, cache, callback, data);
}

void dropOtherFamilies(nl_cache* addresses)
{
    nl_object* following = nullptr;
    for (nl_object* object = nl_cache_get_first(addresses); object != nullptr; object = following) {
        following = nl_cache_get_next(object);
        if (rtnl_addr_get_family(reinterpret_cast<rtnl_addr*>(object)) != AF_INET) {
            nl_cache_remove(object);
        }
    }
}

// From the last object to the first: libnl's hash tables have 1,024 buckets, which it searches from the youngest object
// on, and its own order would take seconds beside 100,000 routes.
void freeManager(nl_cache_mngr* manager, std::initializer_list<nl_cache*> caches)
{
    for (nl_cache* const cache : caches) {
        nl_object* last = nullptr;
        while (cache != nullptr && (last = nl_cache_get_last(cache)) != nullptr) {
            nl_cache_remove(last);
        }
    }
    nl_cache_mngr_free(manager);
}

} // namespace netlink_route
