// Keeps the caches true to the kernel where its notifications alone do not.
#pragma once

#include <chrono>

struct nl_cache;
struct nl_cache_mngr;

namespace netlink_route {

// Three things make a cache differ from the kernel for good: notifications that were lost because the event socket
// overran; IPv4 routes that the kernel drops without a word when a link goes down or away, or an IPv4 address or a
// nexthop object away; and two routes that differ in their next hops alone, of which libnl holds one, and none once
// either was removed. All are mended by reading the kernel again and comparing.
//
// Used by the event thread alone: note() after each pass, mend() before it sleeps. The kernel is read rarely
// (`interval`) and into a cache of its own, and the lock is held only while the outcome is applied, so that a
// flapping link does not keep the queries waiting.
class CacheMirror {
public:
    // Caches that the manager does not have are null.
    struct Caches {
        nl_cache* link = nullptr;
        nl_cache* route = nullptr;
        nl_cache* addr = nullptr;
    };

    CacheMirror(nl_cache_mngr* manager, Caches const& caches);
    ~CacheMirror();
    CacheMirror(CacheMirror const&) = delete;
    CacheMirror& operator=(CacheMirror const&) = delete;

    // Takes the result of a pass: negative when notifications were lost.
    void note(int result);

    // Mends what is due. Returns the milliseconds after which it wants to be called again, -1 for never.
    int mend();

private:
    using Clock = std::chrono::steady_clock;

    // The least time between two reads, and at least as long as the first of them took.
    static constexpr std::chrono::milliseconds interval{300};
    // The kernel notifies a removal first and drops the routes right after. By then it is done with both.
    static constexpr std::chrono::milliseconds settling{100};

    void noteRemovals();
    bool removalsSeen();
    bool reloadAll();
    bool reconcileRoutes();
    bool applyQueued();
    bool drain();

    nl_cache_mngr* manager;
    Caches caches;
    int removals; // a socket that receives only what may leave the route cache wrong; -1: could not be opened
    bool lost = false;
    bool routesDoubtful = true; // what went before the socket was there is unknown
    Clock::time_point lastRemoval = Clock::now();
    Clock::time_point next = lastRemoval + settling; // no read before
};

} // namespace netlink_route
