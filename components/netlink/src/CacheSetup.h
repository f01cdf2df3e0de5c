// Starts libnl's cache manager safely, and ends it quickly.
#pragma once

#include <initializer_list>
#include <netlink/cache.h>

namespace netlink_route {

// Calls nl_cache_mngr_alloc, which opens its two sockets itself; not when it would abort the program for want of
// descriptors. Returns its result. The caches are not provided to libnl's parsers (NL_AUTO_PROVIDE), since these use
// them without a lock.
int allocateManager(nl_cache_mngr** manager);

// Has the manager fill the cache and keep it current. Returns libnl's result. After a failure the cache is freed and
// its pointer is null.
int addCache(nl_cache_mngr* manager, nl_cache*& cache, change_func_t callback, void* data);

// The same for the cache of the routes, of which it takes the IPv4 ones. libnl fails to fill it when the kernel has a
// route with an encapsulation that libnl does not know (-NLE_MSGTYPE_NOSUPPORT). Then it is made to ask for IPv6 routes
// instead, so that the manager takes the cache; the mirror's first reading replaces them by the IPv4 routes that libnl
// can parse.
int addRouteCache(nl_cache_mngr* manager, nl_cache*& cache, change_func_t callback, void* data);

// Whether the filled cache holds something else than the kernel's IPv4 routes: route exceptions, which libnl takes for
// routes, or IPv6 routes.
bool holdsOthersThanIpv4Routes(nl_cache* routes);

// libnl fills the cache of the addresses with those of all families.
void dropOtherFamilies(nl_cache* addresses);

// Frees the manager and the caches that it has taken: nl_cache_mngr_free, without its seconds for large caches.
void freeManager(nl_cache_mngr* manager, std::initializer_list<nl_cache*> caches);

} // namespace netlink_route
