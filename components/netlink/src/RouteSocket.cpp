#include "RouteSocket.h"

#include "Trace.h"

#include <netlink/errno.h>
#include <netlink/netlink.h>
#include <netlink/socket.h>

namespace netlink_route {

RouteSocket::RouteSocket()
{
    sock = nl_socket_alloc();
    if (sock == nullptr) {
        TRACE_ERROR("socket is NULL!");
        return;
    }
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
    TRACE_DEBUG2("freeing socket with fs %d and nl_pid %d ", nl_socket_get_fd(sock),
                 static_cast<int>(nl_socket_get_local_port(sock)));
    nl_socket_free(sock);
}

nl_sock* RouteSocket::getSocket() { return sock; }

} // namespace netlink_route
