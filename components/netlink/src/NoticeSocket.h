// The socket on which the kernel's notifications arrive of what none of the three caches holds.
#pragma once

#include "NetlinkPtr.h"

#include <vector>

namespace netlink_route {

// Receives the notifications of queueing disciplines and of nexthop objects. The thread that makes the manager opens it,
// then the event thread alone uses it.
class NoticeSocket {
public:
    // After EventSocket::adopt(). The kernel serves the member of a group that joined last before the others: so when the
    // event socket wakes the event thread because of such a notification, it is here already. Returns libnl's result.
    int open();

    // What happened since the last call.
    struct Notices {
        bool overrun = false;       // notifications were lost
        bool nexthops = false;      // a nexthop object was made, changed or deleted
        std::vector<int> newQdiscs; // indices of the links whose queueing discipline changed
    };
    Notices take();

    // In the child of a fork: closes the descriptor.
    void abandon();

private:
    SocketPtr socket;
};

} // namespace netlink_route
