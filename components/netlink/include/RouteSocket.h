/// @file
#pragma once

#include "Export.h"

struct nl_sock;

namespace netlink_route {

/// Owns one rtnetlink socket, connected for as long as the object lives.
///
/// The constructor logs its failures and never throws. One thread at a time may send on the socket. libnl does not compare
/// sequence numbers there.
class NETLINK_ROUTE_API RouteSocket {
public:
    /// Opens the socket and connects it.
    RouteSocket();
    /// Closes it.
    ~RouteSocket();
    ///@{

    /// A socket is not copied.
    RouteSocket(RouteSocket const&) = delete;
    RouteSocket& operator=(RouteSocket const&) = delete;
    ///@}

    /// Null when the socket could not be allocated, and not connected when that failed. The RouteSocket stays
    /// the owner.
    nl_sock* getSocket();

private:
    friend class CacheManager;

    // In the child of a fork: closes the descriptor and forgets the socket, since libnl's locks may be held for ever.
    NETLINK_ROUTE_LOCAL void abandon();

    nl_sock* sock = nullptr;
    int protocol = 0; // NETLINK_ROUTE
};

} // namespace netlink_route
