#include "EventSocket.h"

#include "KernelNumbers.h"
#include "SocketFilter.h"

#include <cerrno>
#include <fcntl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <memory>
#include <netlink/errno.h>
#include <netlink/msg.h>
#include <netlink/route/link.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace netlink_route {

namespace {

// libnl's receive buffer of 32 KiB overruns when 1,000 links are created at once. The number is a limit: the
// kernel uses memory only for the notifications that wait.
void enlargeReceiveBuffer(int descriptor)
{
    int const bytes = 8 * 1024 * 1024;
    // SO_RCVBUFFORCE needs CAP_NET_ADMIN; without it the buffer grows up to the host's limit, net.core.rmem_max.
    if (setsockopt(descriptor, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) != 0) {
        setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
    }
}

// Nexthop objects and queueing disciplines only wake the event thread: libnl ignores their messages here, and the
// NoticeSocket has them, too. Addresses are joined before libnl does, so that one which goes while libnl fills the
// caches leaves a notification. Failures are ignored: a kernel that does not have one of these notifies none.
void joinGroups(int descriptor)
{
    for (int const group : {nexthopGroup, static_cast<int>(RTNLGRP_TC), static_cast<int>(RTNLGRP_IPV4_IFADDR)}) {
        setsockopt(descriptor, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group);
    }
}

bool ask(int events, int index, char const* name)
{
    nl_msg* message = nullptr;
    if (rtnl_link_build_get_request(index, name, &message) != 0) {
        return false;
    }
    std::unique_ptr<nl_msg, decltype(&nlmsg_free)> const owner(message, nlmsg_free);
    nlmsghdr* const header = nlmsg_hdr(message);
    header->nlmsg_flags = NLM_F_REQUEST; // no acknowledgement, which libnl would find between the notifications
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    return sendto(events, header, header->nlmsg_len, MSG_NOSIGNAL, reinterpret_cast<sockaddr const*>(&kernel),
                  sizeof kernel) >= 0;
}

} // namespace

int EventSocket::adopt(int libnlDescriptor)
{
    slot = libnlDescriptor;
    events.reset(fcntl(slot, F_DUPFD_CLOEXEC, 0));
    decoy.reset(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
    if (events.get() < 0 || decoy.get() < 0) {
        return -nl_syserr2nlerr(errno);
    }
    attachEventFilter(slot);
    enlargeReceiveBuffer(slot);
    joinGroups(slot);
    return 0;
}

// ppoll, since each call of poll is one of the event thread's.
bool EventSocket::isEmpty() const
{
    pollfd record{events.get(), POLLIN, 0};
    timespec const atOnce{};
    return ppoll(&record, 1, &atOnce, nullptr) == 0;
}

// dup3 fails with EBUSY while another thread opens a file that gets this number.
void EventSocket::put(Descriptor const& socket)
{
    while (dup3(socket.get(), slot, O_CLOEXEC) < 0 && (errno == EBUSY || errno == EINTR)) {
    }
}

void EventSocket::hide()
{
    MutexLock const guard(mutex);
    if (!hidden) {
        put(decoy);
        hidden = true;
    }
}

void EventSocket::show()
{
    MutexLock const guard(mutex);
    if (hidden && !stopped) {
        put(events);
        hidden = false;
    }
}

void EventSocket::stop()
{
    MutexLock const guard(mutex);
    stopped = true;
    put(decoy);
}

bool EventSocket::askForLink(std::string const& name) const { return ask(events.get(), 0, name.c_str()); }

bool EventSocket::askForLink(int index) const { return ask(events.get(), index, nullptr); }

void EventSocket::abandon()
{
    close(slot);
    events.reset();
    decoy.reset();
}

} // namespace netlink_route
