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

// The same for the cache of the routes, but libnl fills it with multicast routes, of which there are few and mostly none;
// or with all, on a kernel that has no multicast routing. The mirror's first reading replaces them by the IPv4 routes.
// Filling the cache with these itself, libnl would fail at one that has an encapsulation which it does not know, and take
// the rest of that answer for the addresses that it asks for next.
int addRouteCache(nl_cache_mngr* manager, nl_cache*& cache, change_func_t callback, void* data);

// libnl fills the cache of the addresses with those of all families.
void dropOtherFamilies(nl_cache* addresses);

// Frees the manager and the caches that it has taken: nl_cache_mngr_free, without its seconds for large caches.
void freeManager(nl_cache_mngr* manager, std::initializer_list<nl_cache*> caches);

} // namespace netlink_route
