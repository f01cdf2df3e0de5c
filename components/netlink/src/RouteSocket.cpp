#include "RouteSocket.h"

#include "Cancellation.h"
#include "Trace.h"

#include <netlink/errno.h>
#include <netlink/netlink.h>
#include <netlink/socket.h>
#include <unistd.h>

namespace netlink_route {

// Answers are small, so libnl need not look how large each is before it receives it. And sequence numbers are not
// compared: after a request that was interrupted they would make each later one fail.
RouteSocket::RouteSocket()
{
    NoCancellation const guard;
    sock = nl_socket_alloc();
    if (sock == nullptr) {
        TRACE_ERROR("socket is NULL!");
        return;
    }
    nl_socket_disable_msg_peek(sock);
    nl_socket_disable_seq_check(sock);
    int const result = nl_connect(sock, protocol);
    if (result != 0) {
        TRACE_ERROR("connect got error code %s", nl_geterror(-result));
    }
    TRACE_DEBUG2("get socket with fs %d and nl_pid %d ", nl_socket_get_fd(sock),
                 static_cast<int>(nl_socket_get_local_port(sock)));
}

RouteSocket::~RouteSocket()
{
    if (sock == nullptr) {
        return;
    }
    NoCancellation const guard;
    TRACE_DEBUG2("freeing socket with fs %d and nl_pid %d ", nl_socket_get_fd(sock),
                 static_cast<int>(nl_socket_get_local_port(sock)));
    nl_socket_free(sock);
}

nl_sock* RouteSocket::getSocket() { return sock; }

void RouteSocket::abandon()
{
    if (sock != nullptr) {
        close(nl_socket_get_fd(sock));
        sock = nullptr;
    }
}

} // namespace netlink_route
