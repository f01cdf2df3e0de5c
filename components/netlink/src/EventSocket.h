// The sockets on which the kernel's notifications arrive, and how a pass of libnl over them is ended early.
#pragma once

#include "Export.h"

#include <string>
#include <vector>

namespace netlink_route {

// The event socket of libnl's cache manager, and what the cache manager has no function for.
//
// A pass is one call of nl_cache_mngr_data_ready. It reads until the socket is empty, which in a flood it never is, and
// the lock is held for as long. So for a query that waits, an empty socket is put under the event socket's descriptor:
// libnl finds nothing more, and returns. A duplicate keeps the event socket open meanwhile, and serves all other uses.
//
// Threading: isEmpty(), askForLink(), endRunningPass() and stop() may be called by any thread, the rest by the event
// thread, and before it by the constructor.
class EventSocket {
public:
    EventSocket() = default;
    ~EventSocket();
    EventSocket(EventSocket const&) = delete;
    EventSocket& operator=(EventSocket const&) = delete;

    // Opens the socket of the notices. Returns libnl's result.
    int open();

    // Takes the descriptor of libnl's event socket, before the caches join their groups: enlarges its buffer and joins
    // the groups that libnl does not. Returns libnl's result.
    int adopt(int libnlDescriptor);

    // Attaches the filters, and joins the groups with the socket of the notices. What the event socket has received
    // until then is not filtered, and is thrown away. True: some of it may concern the caches.
    bool attachFilters();

    // Whether no notification waits.
    bool isEmpty() const;

    // Before and after each nl_cache_mngr_data_ready.
    void beginPass();
    void endPass();

    // Ends the pass that is running in this process, if any.
    static void endRunningPass();

    // Ends the pass of this socket, if it is running, and every later one.
    void stop();

    // Asks the kernel for a link. The answer is queued like a notification before this returns, and the caches take it
    // as one: the kernel notifies nobody of some changes. False: it could not be asked.
    void askForLink(std::string const& name) const;
    bool askForLink(int index) const;

    // Reads the notifications of what none of the three caches holds: what happened since the last call.
    struct Notices {
        bool overrun = false;
        bool nexthops = false;      // a nexthop object was made, changed or deleted
        std::vector<int> newQdiscs; // indices of the links whose queueing discipline changed
    };
    Notices takeNotices();

private:
    void replace();

    int slot = -1;    // libnl's descriptor: the event socket, or the empty one while a pass is being ended
    int events = -1;  // the event socket
    int empty = -1;   // receives nothing, ever; opened before the first pass
    int notices = -1; // receives what none of the three caches holds
    bool replaced = false;
    bool stopped = false;
};

} // namespace netlink_route
