// Keeps the caches true to the kernel where its notifications alone do not.
#pragma once

#include <array>
#include <chrono>

struct nl_cache;
struct nl_cache_mngr;

namespace netlink_route {

// Two things make a cache differ from the kernel for good: notifications that were lost because the event
// socket overran, and IPv4 routes that the kernel drops without a word when a link goes down or away, or an
// IPv4 address away. Both are mended by reading the contents of the cache from the kernel again.
//
// Used by the event thread alone: note() after each pass, mend() before it sleeps. Reads of the kernel are
// rare
// (`interval`), and the caches are locked only while their contents are exchanged: neither a storm of changes
// nor a large table keeps the queries waiting.
class CacheMirror {
public:
    // Finds the caches by name, which gives those of the manager that was the last in the process to add its
    // own.
    explicit CacheMirror(nl_cache_mngr* manager);
    ~CacheMirror();
    CacheMirror(CacheMirror const&) = delete;
    CacheMirror& operator=(CacheMirror const&) = delete;

    // Takes the result of a pass: negative when notifications were lost.
    void note(int result);

    // Mends what is due. Returns the milliseconds after which it wants to be called again, -1 for never.
    int mend();

private:
    using Clock = std::chrono::steady_clock;

    // The least time between two reads.
    static constexpr std::chrono::milliseconds interval{500};
    // The kernel notifies a removal first and drops the routes right after. By then it is done with both.
    static constexpr std::chrono::milliseconds settling{100};

    void noteRemovals();
    bool removalsSeen();
    bool reloadAll();
    bool reload(nl_cache* cache);
    bool drain();

    nl_cache_mngr* manager;
    nl_cache* routeCache;
    std::array<nl_cache*, 3> caches;
    int removals; // a socket that receives only what may drop routes silently; -1: could not be opened
    bool lost = false;
    bool routesDropped = false;
    Clock::time_point lastRemoval;
    Clock::time_point next; // no read before
};

} // namespace netlink_route
