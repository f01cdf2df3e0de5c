// The socket on which the kernel's notifications of links, addresses and routes arrive.
#pragma once

#include "Descriptor.h"
#include "Locks.h"

#include <string>

namespace netlink_route {

// The event socket of libnl's cache manager, and what the cache manager has no function for.
//
// libnl reads the socket until it is empty, which in a flood of notifications it never is. So the socket can be hidden:
// an empty socket, the decoy, is put under libnl's descriptor, and libnl finds nothing more to read. A duplicate keeps
// the event socket open meanwhile, and serves all other uses.
//
// Threading: adopt() and abandon() by the thread that makes or destroys the manager, the rest by any thread.
class EventSocket {
public:
    // Takes the descriptor of libnl's event socket, before the caches join their groups: attaches the filter, enlarges
    // the receive buffer, joins the groups that libnl does not. Returns libnl's result.
    int adopt(int libnlDescriptor);

    // Whether no notification waits.
    bool isEmpty() const;

    // Has libnl find the socket empty, and again as it is. Stopped: hidden for ever.
    void hide();
    void show();
    void stop();

    // Asks the kernel for a link. The answer is queued like a notification before this returns, and the caches take it
    // as one. False: the kernel could not be asked.
    bool askForLink(std::string const& name) const;
    bool askForLink(int index) const;

    // In the child of a fork: closes the descriptors, libnl's too.
    void abandon();

private:
    void put(Descriptor const& socket) REQUIRES(mutex);

    int slot = -1;     // libnl's descriptor
    Descriptor events; // the event socket
    Descriptor decoy;  // receives nothing, ever
    Mutex mutex;
    bool hidden GUARDED_BY(mutex) = false;
    bool stopped GUARDED_BY(mutex) = false;
};

} // namespace netlink_route
