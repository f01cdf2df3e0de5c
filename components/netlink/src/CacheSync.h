// Reads tables of the kernel, or parts of them, and makes libnl's caches equal to what was read.
#pragma once

#include "NetlinkPtr.h"

#include <atomic>
#include <cstdint>
#include <optional>
#include <vector>

namespace netlink_route {

// What was read, in the kernel's order.
using Objects = std::vector<ObjectPtr>;

// Asks the kernel over a socket of its own, on which no notification arrives. One thread at a time; stop() from any.
//
// A reading fails when the request cannot be sent or answered, when the tables changed so much during the dump that the
// answer is not consistent, when memory runs out, or when stop() was called. It waits for the kernel's answer, and for
// nothing else.
class KernelReader {
public:
    // Opens the socket. Not needed: the first request does it, and each one after a failure.
    void open() { connect(); }

    // Ends the reading of the moment, and all later ones.
    void stop() { stopped = true; }
    bool isStopped() const { return stopped; }

    std::optional<Objects> readLinks();
    std::optional<Objects> readIpv4Addresses();

    // All IPv4 routes. Route exceptions, such as a learnt path MTU, are no routes, and are left out.
    std::optional<Objects> readRoutes();

    // The IPv4 routes with a hop on that link: an empty list when the link is gone. std::nullopt, as on failure, when
    // the kernel is too old to choose (before Linux 4.20).
    std::optional<Objects> readRoutesOf(int link);

    // Whether the kernel has nexthop objects, or fails to tell.
    bool mayHaveNexthopObjects();

    // Returns when the kernel has finished the change of its configuration that is in progress: it drops routes
    // silently, a moment after the notification of what made it drop them.
    bool waitForKernel();

private:
    int connect();
    void disconnect();
    int request(int type, int flags, void* body, std::size_t size, Objects& answer);
    std::optional<Objects> dump(int type, void* body, std::size_t size);

    SocketPtr socket;
    bool connected = false;
    bool strict = false; // the kernel looks at what a dump request asks for
    std::atomic<bool> stopped{false};
};

// A hash of all that libnl tells routes apart by: destination, table, type of service and priority. Two routes that
// differ in their next hops alone have the same key, and libnl holds one of them.
std::uint64_t routeKey(rtnl_route* route);

// The bytes of an IPv4 address as one number; 0 for null and for an address without bytes.
std::uint32_t ipv4Bytes(nl_addr* address);

// The next four change the cache to what was read, in slices, so that no query waits long. The caller is the event
// thread, which alone changes the cache; it must not hold mutex_man, which they lock. On failure, a part may be done.
struct Applied {
    bool complete = true;
    bool removed = false; // an object went that no other one replaced
};
Applied makeLinksEqual(nl_cache* cache, Objects fresh, KernelReader const& reader);

// The cache then has the kernel's order, too; not so meanwhile.
Applied makeAddressesEqual(nl_cache* cache, Objects fresh, KernelReader const& reader);

// The result has the keys of the routes, sorted, of which the kernel holds several and the cache the first.
std::optional<std::vector<std::uint64_t>> makeRoutesEqual(nl_cache* cache, Objects fresh, KernelReader const& reader);

// Removes those of the given routes of the cache that are not among the fresh ones, and replaces those that differ.
// Adds none.
Applied removeStaleRoutes(nl_cache* cache, std::vector<nl_object*> const& routes, Objects fresh,
                          KernelReader const& reader);

// Whether an address stands in the cache twice.
bool holdsAddressTwice(nl_cache* cache);

} // namespace netlink_route
