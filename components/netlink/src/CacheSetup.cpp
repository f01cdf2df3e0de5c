#include "CacheSetup.h"

#include "EventSocket.h"
#include "LockQueue.h"

#include <cerrno>
#include <initializer_list>
#include <netlink/errno.h>
#include <netlink/netlink.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace netlink_route {

namespace {

// Held for reading while an event thread parses, for writing while a cache is provided. A constructor keeps the
// turnstile while it waits for it, and event threads pass through the turnstile first: so none that is busy can take it
// again and again before the constructor gets it.
pthread_rwlock_t provision = PTHREAD_RWLOCK_INITIALIZER;
pthread_mutex_t turnstile = PTHREAD_MUTEX_INITIALIZER;

// libnl 3.7 aborts when it can open only the first of the two sockets that a cache manager needs. So two other
// descriptors are opened first, on trial.
int probeTwoDescriptors()
{
    int const first = eventfd(0, EFD_CLOEXEC);
    int const second = eventfd(0, EFD_CLOEXEC);
    int const result = second >= 0 ? 0 : -nl_syserr2nlerr(errno);
    for (int const descriptor : {first, second}) {
        if (descriptor >= 0) {
            close(descriptor);
        }
    }
    return result;
}

} // namespace

int allocateManager(nl_cache_mngr** manager)
{
    int const probe = probeTwoDescriptors();
    return probe == 0 ? nl_cache_mngr_alloc(nullptr, NETLINK_ROUTE, NL_AUTO_PROVIDE, manager) : probe;
}

namespace {

int tryToAdd(nl_cache_mngr* manager, nl_cache* cache, change_func_t callback, void* data)
{
    pthread_mutex_lock(&turnstile);
    timespec deadline{};
    do { // again: a pass may have been about to begin
        EventSocket::endRunningPass();
        deadline = inAMillisecond();
    } while (pthread_rwlock_timedwrlock(&provision, &deadline) != 0);
    int const result = nl_cache_mngr_add_cache(manager, cache, callback, data);
    nl_cache_mngt_unprovide(cache);
    pthread_rwlock_unlock(&provision);
    pthread_mutex_unlock(&turnstile);
    return result;
}

} // namespace

int addCache(nl_cache_mngr* manager, nl_cache*& cache, change_func_t callback, void* data)
{
    if (cache == nullptr) {
        return 0;
    }
    int const result = manager != nullptr ? tryToAdd(manager, cache, callback, data) : 0;
    if (manager == nullptr || result < 0) {
        nl_cache_free(cache);
        cache = nullptr;
    }
    return result;
}

int addRouteCache(nl_cache_mngr* manager, nl_cache*& cache, change_func_t callback, void* data)
{
    if (manager == nullptr || cache == nullptr) {
        return addCache(manager, cache, callback, data);
    }
    nl_cache_set_arg1(cache, AF_INET); // what libnl asks for
    int const result = tryToAdd(manager, cache, callback, data);
    if (result == -NLE_MSGTYPE_NOSUPPORT) {
        nl_cache_set_arg1(cache, AF_INET6);
        return addCache(manager, cache, callback, data);
    }
    if (result < 0) {
        nl_cache_free(cache);
        cache = nullptr;
    }
    return result;
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

ParsingAllowed::ParsingAllowed()
{
    pthread_mutex_lock(&turnstile);
    pthread_mutex_unlock(&turnstile);
    pthread_rwlock_rdlock(&provision);
}

ParsingAllowed::~ParsingAllowed() { pthread_rwlock_unlock(&provision); }

} // namespace netlink_route
