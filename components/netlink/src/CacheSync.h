// Makes libnl's caches equal to what was read from the kernel.
#pragma once

#include "NetlinkPtr.h"

#include <atomic>
#include <cstdint>
#include <optional>
#include <vector>

namespace netlink_route {

// How changes are applied to a cache: 32 at a time, so that no query waits long.
struct Slices {
    std::atomic<bool> const& stop; // when it is set, the rest is left out
    bool lock;                     // others use the cache: each slice is applied under mutex_man
};

// The caller of all functions is the event thread, or the constructor before it: the thread that alone changes the cache.
// It must not hold mutex_man.

// Each of the next three makes the cache equal to the fresh objects. On failure of any function, which is for want of
// memory or a stop, a part may be done.
struct Applied {
    bool complete = true;
    bool removed = false; // an object went that no other one replaced
};
Applied makeLinksEqual(nl_cache* cache, Objects fresh, Slices const& slices);

// The cache then has the order of the fresh ones, too; not so meanwhile.
Applied makeAddressesEqual(nl_cache* cache, Objects fresh, Slices const& slices);

// The result has the keys, sorted, of which there are several fresh routes that libnl cannot tell apart. The cache then
// has the first of each; std::nullopt on failure.
std::optional<std::vector<std::uint64_t>> makeRoutesEqual(nl_cache* cache, Objects fresh, Slices const& slices);

// Removes those of the given routes of the cache that are not among the fresh ones, and replaces those that differ.
// Adds none.
Applied removeStaleRoutes(nl_cache* cache, std::vector<nl_object*> const& routes, Objects fresh, Slices const& slices);

// Whether an address stands in the cache twice: when the kernel's addresses change while libnl fills its cache, libnl
// begins again without removing what it has added.
bool holdsAddressTwice(nl_cache* cache);

} // namespace netlink_route
