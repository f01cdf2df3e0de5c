#include "CacheMirror.h"

#include "MyLock.h"
#include "NetlinkPtr.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstddef>
#include <linux/filter.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netlink/errno.h>
#include <netlink/netlink.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace netlink_route {

namespace {

// Lets through what may leave the route cache wrong: a route, an address or a link that goes away, a link that goes
// down, and any change of a nexthop object. A new link is down as well; it is told from one that goes down by its
// change mask, in which every bit is set.
int attachRemovalFilter(int descriptor)
{
    constexpr unsigned int type = offsetof(nlmsghdr, nlmsg_type);
    constexpr unsigned int flags = NLMSG_HDRLEN + offsetof(ifinfomsg, ifi_flags);
    constexpr unsigned int change = NLMSG_HDRLEN + offsetof(ifinfomsg, ifi_change);
    // The filter reads numbers in network order, and netlink writes them in the host's.
    // clang-format off
    std::array<sock_filter, 14> program{{
        BPF_STMT(BPF_LD | BPF_H | BPF_ABS, type),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, htons(RTM_DELROUTE), 11, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, htons(RTM_DELADDR), 10, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, htons(RTM_DELLINK), 9, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, htons(RTM_NEWNEXTHOP), 8, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, htons(RTM_DELNEXTHOP), 7, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, htons(RTM_NEWLINK), 0, 5),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, flags),
        BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, htonl(IFF_UP), 3, 0),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, change),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ~0U, 1, 0),
        BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, htonl(IFF_UP), 1, 0),
        BPF_STMT(BPF_RET | BPF_K, 0),   // drop
        BPF_STMT(BPF_RET | BPF_K, ~0U), // keep
    }};
    // clang-format on
    const sock_fprog filter{program.size(), program.data()};
    return setsockopt(descriptor, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter);
}

// The kernel serves the sockets of a group from the youngest to the oldest. This one joins after the event socket, so
// it has a removal before the event socket has it; were it otherwise, the next event would show the removal.
int openRemovals()
{
    const int descriptor = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
    if (descriptor < 0) {
        return -1;
    }
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    local.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE;
    const bool ready = attachRemovalFilter(descriptor) == 0 &&
                       bind(descriptor, reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0;
    if (!ready) {
        close(descriptor);
        return -1;
    }
    const int group = RTNLGRP_NEXTHOP; // too high for nl_groups; kernels before 5.3 have none
    setsockopt(descriptor, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group);
    return descriptor;
}

// Ends a read that changes of the kernel have made inconsistent. Left alone, libnl would begin again at once, for as
// long as the changes go on.
int stopRead(nl_msg* /*message*/, void* /*argument*/) { return -NLE_AGAIN; }

// What the kernel holds now of the kind that the cache is for, or null. Read over a socket of its own, on which
// nothing else arrives.
CachePtr readKernel(nl_cache* cache)
{
    const SocketPtr socket(nl_socket_alloc());
    CachePtr fresh(nl_cache_alloc(nl_cache_get_ops(cache)));
    if (socket == nullptr || fresh == nullptr) {
        return nullptr;
    }
    nl_socket_modify_cb(socket.get(), NL_CB_DUMP_INTR, NL_CB_CUSTOM, stopRead, nullptr);
    const bool read = nl_connect(socket.get(), NETLINK_ROUTE) == 0 && nl_cache_refill(socket.get(), fresh.get()) == 0;
    return read ? std::move(fresh) : nullptr;
}

// Moves an object from one cache to another. False when there is no memory for that, and the object is gone.
bool move(nl_object* object, nl_cache* to)
{
    if (nl_cache_move(to, object) == 0) {
        return true;
    }
    nl_object_put(object);
    return false;
}

// Exchanges the contents of the cache in one step, so that no query sees a part. False when that failed.
bool reload(nl_cache* cache)
{
    const CachePtr fresh = readKernel(cache);
    if (fresh == nullptr) {
        return false;
    }
    bool complete = true;
    const MyLock lock("nl_cache_mngr_data_ready");
    nl_cache_clear(cache);
    while (nl_object* const object = nl_cache_get_first(fresh.get())) {
        complete = move(object, cache) && complete;
    }
    return complete;
}

// Calls the function with each object, and lets the queries in now and then.
template <typename Function>
void forEachLocked(std::vector<nl_object*> const& objects, Function function)
{
    constexpr std::size_t slice = 256;
    for (std::size_t begin = 0; begin < objects.size(); begin += slice) {
        const MyLock lock("nl_cache_mngr_data_ready");
        const std::size_t end = std::min(begin + slice, objects.size());
        for (std::size_t i = begin; i < end; ++i) {
            function(objects[i]);
        }
    }
}

// What it takes to make a cache the same as a fresh one.
struct Difference {
    std::vector<nl_object*> stale;   // in the cache
    std::vector<nl_object*> missing; // in the fresh one
};

// Takes references and sets marks in the fresh cache only: the other one is shared, and may be read without the
// lock because this thread alone changes it.
Difference compare(nl_cache* cache, nl_cache* fresh)
{
    Difference difference;
    for (nl_object* object = nl_cache_get_first(cache); object != nullptr; object = nl_cache_get_next(object)) {
        const ObjectPtr current(nl_cache_search(fresh, object));
        if (current != nullptr && nl_object_diff64(object, current.get()) == 0) {
            nl_object_mark(current.get());
        } else {
            difference.stale.push_back(object);
        }
    }
    for (nl_object* object = nl_cache_get_first(fresh); object != nullptr; object = nl_cache_get_next(object)) {
        if (nl_object_is_marked(object) == 0) {
            difference.missing.push_back(object);
        }
    }
    return difference;
}

} // namespace

CacheMirror::CacheMirror(nl_cache_mngr* cacheManager, Caches const& itsCaches)
    : manager(cacheManager), caches(itsCaches), removals(openRemovals())
{
}

CacheMirror::~CacheMirror()
{
    if (removals >= 0) {
        close(removals);
    }
}

void CacheMirror::note(int result)
{
    if (result < 0) {
        lost = true;
    }
    noteRemovals();
}

void CacheMirror::noteRemovals()
{
    if (!removalsSeen()) {
        return;
    }
    lastRemoval = Clock::now();
    if (!routesDoubtful) {
        routesDoubtful = true;
        next = std::max(next, lastRemoval + settling);
    }
}

// Without the socket a removal cannot be ruled out.
bool CacheMirror::removalsSeen()
{
    if (removals < 0) {
        removals = openRemovals();
        return true;
    }
    bool seen = false;
    char message = 0;
    while (recv(removals, &message, sizeof message, 0) >= 0 || errno == ENOBUFS) {
        seen = true;
    }
    return seen;
}

int CacheMirror::mend()
{
    if (!lost && !routesDoubtful) {
        return -1;
    }
    const auto start = Clock::now();
    if (start >= next) {
        const bool mended = lost ? reloadAll() : reconcileRoutes();
        if (mended) {
            lost = false;
            routesDoubtful = lastRemoval + settling > start;
        }
        const auto end = Clock::now();
        next = end + std::max<Clock::duration>(interval, end - start);
        noteRemovals();
    }
    if (!lost && !routesDoubtful) {
        return -1;
    }
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now());
    return std::max(0, static_cast<int>(wait.count()));
}

// A socket that has overrun reports it once, and drops notifications until it has been read empty: only what
// is read from the kernel after that is safe from being missed.
bool CacheMirror::reloadAll()
{
    if (!drain()) {
        return false;
    }
    for (nl_cache* const cache : {caches.link, caches.addr}) {
        if (cache != nullptr && !reload(cache)) {
            return false;
        }
    }
    return reconcileRoutes() && applyQueued(); // not drain(): what is lost from here on is lost again
}

// Makes the route cache the same as the kernel's routes. False when they could not be read.
bool CacheMirror::reconcileRoutes()
{
    if (caches.route == nullptr) {
        return true;
    }
    const CachePtr fresh = readKernel(caches.route);
    if (fresh == nullptr) {
        return false;
    }
    const Difference difference = compare(caches.route, fresh.get());
    bool complete = true;
    forEachLocked(difference.stale, nl_cache_remove);
    forEachLocked(difference.missing, [&](nl_object* object) { complete = move(object, caches.route) && complete; });
    return complete;
}

// Applies what is queued. False when the queue had overrun.
bool CacheMirror::applyQueued()
{
    const MyLock lock("nl_cache_mngr_data_ready");
    return nl_cache_mngr_data_ready(manager) >= 0;
}

// Applies what is queued until nothing is lost. False when the queue overran again and again.
bool CacheMirror::drain()
{
    constexpr int attempts = 100;
    for (int attempt = 0; attempt < attempts; ++attempt) {
        if (applyQueued()) {
            return true;
        }
    }
    return false;
}

} // namespace netlink_route
