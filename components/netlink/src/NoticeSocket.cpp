#include "NoticeSocket.h"

#include "KernelNumbers.h"
#include "SocketFilter.h"

#include <cerrno>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <netlink/errno.h>
#include <netlink/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

namespace netlink_route {

// libnl chooses the socket's port. The kernel would choose the number of the process, which other netlink code of the
// program may want to have.
int NoticeSocket::open()
{
    socket.reset(nl_socket_alloc());
    if (socket == nullptr) {
        return -NLE_NOMEM;
    }
    int const result = nl_connect(socket.get(), NETLINK_ROUTE);
    if (result < 0) {
        return result;
    }
    attachNoticeFilter(nl_socket_get_fd(socket.get()));
    // One by one, and failures are ignored: a kernel that does not have one of these notifies none.
    nl_socket_add_memberships(socket.get(), nexthopGroup, 0);
    nl_socket_add_memberships(socket.get(), RTNLGRP_TC, 0);
    return 0;
}

NoticeSocket::Notices NoticeSocket::take()
{
    struct {
        nlmsghdr header;
        tcmsg discipline;
    } message{};
    Notices result;
    while (true) {
        ssize_t const received = recv(nl_socket_get_fd(socket.get()), &message, sizeof message, MSG_DONTWAIT);
        if (received < 0 && errno == ENOBUFS) {
            result.overrun = true;
            continue;
        }
        if (received <= 0) {
            return result;
        }
        unsigned int const type = message.header.nlmsg_type & newOrDeleted;
        if (type == RTM_NEWQDISC) {
            int const link = message.discipline.tcm_ifindex;
            if (result.newQdiscs.empty() || result.newQdiscs.back() != link) { // one for each queue
                result.newQdiscs.push_back(link);
            }
        } else if (type == newNexthop) {
            result.nexthops = true;
        }
    }
}

void NoticeSocket::abandon() { close(nl_socket_get_fd(socket.get())); }

} // namespace netlink_route
