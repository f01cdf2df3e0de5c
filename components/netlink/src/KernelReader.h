// Reads tables of the kernel, or parts of them.
#pragma once

#include "NetlinkPtr.h"

#include <atomic>
#include <cstddef>
#include <optional>

namespace netlink_route {

// Asks the kernel over a socket of its own, on which no notification arrives. What was read has the kernel's order.
//
// A reading fails when the request cannot be sent or answered, when the tables changed so much during the dump that the
// answer is not consistent, when memory runs out, or when the flag `stop` is set. It waits for the kernel's answer, and
// for nothing else. The thread that makes the manager opens the socket, then the event thread alone uses it.
class KernelReader {
public:
    explicit KernelReader(std::atomic<bool> const& toStop) : stop(toStop) {}

    // Opens the socket. Each request that finds none after a failure does it again. Returns libnl's result.
    int open();

    std::optional<Objects> readLinks();
    std::optional<Objects> readIpv4Addresses();

    // All IPv4 routes, or those with a hop on that link, of which a link that is gone has none. Route exceptions, such as
    // a learnt path MTU, are no routes, and are left out. A kernel that cannot choose (before Linux 4.20) fails to read
    // the routes of one link.
    std::optional<Objects> readRoutes();
    std::optional<Objects> readRoutesOf(int link);

    // Whether the kernel has nexthop objects, or fails to tell.
    bool mayHaveNexthopObjects();

    // Returns when the kernel has finished the change of its configuration that is in progress: it drops routes
    // silently, a moment after the notification of what made it drop them. False on failure.
    bool waitForKernel();

    // In the child of a fork: closes the descriptor.
    void abandon();

private:
    struct Answer;
    int request(int type, int flags, void* body, std::size_t size, Answer& answer);
    std::optional<Objects> dump(int type, void* body, std::size_t size);

    std::atomic<bool> const& stop;
    SocketPtr socket;    // null: not connected
    bool strict = false; // the kernel looks at what a dump request asks for
};

} // namespace netlink_route
