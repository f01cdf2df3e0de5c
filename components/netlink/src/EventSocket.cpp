#include "EventSocket.h"

#include "KernelNumbers.h"
#include "SocketFilter.h"

#include <cerrno>
#include <fcntl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <memory>
#include <mutex>
#include <netlink/errno.h>
#include <netlink/msg.h>
#include <netlink/route/link.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace netlink_route {

namespace {

std::mutex passMutex;           // guards the next one, and what stands under the slot of each event socket
EventSocket* running = nullptr; // the pass that holds mutex_man

// Makes the descriptor stand for that socket. dup3 may fail with EBUSY when another thread opens a file at this moment.
void putUnder(int descriptor, int socket)
{
    while (dup3(socket, descriptor, O_CLOEXEC) < 0 && (errno == EBUSY || errno == EINTR)) {
    }
}

int openSocket() { return socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE); }

int resultOf(bool success) { return success ? 0 : -nl_syserr2nlerr(errno); }

// Failures are ignored: a kernel that has no nexthop objects, or no queueing disciplines, notifies none.
void joinGroups(int descriptor)
{
    for (int const group : {nexthopGroup, static_cast<int>(RTNLGRP_TC)}) {
        setsockopt(descriptor, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group);
    }
}

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

EventSocket::~EventSocket()
{
    for (int const descriptor : {events, empty, notices}) {
        if (descriptor >= 0) {
            close(descriptor);
        }
    }
}

int EventSocket::open()
{
    notices = openSocket();
    sockaddr_nl local{}; // without an address of its own the kernel would not notify it
    local.nl_family = AF_NETLINK;
    return resultOf(notices >= 0 && bind(notices, reinterpret_cast<sockaddr const*>(&local), sizeof local) == 0);
}

int EventSocket::adopt(int libnlDescriptor)
{
    slot = libnlDescriptor;
    events = fcntl(slot, F_DUPFD_CLOEXEC, 0);
    enlargeReceiveBuffer(slot);
    joinGroups(slot);
    return resultOf(events >= 0);
}

bool EventSocket::attachFilters()
{
    attachNoticesFilter(notices);
    attachEventFilter(events);
    // Both sockets are in these groups. Here the event socket only wakes the event thread (libnl ignores the messages),
    // and takeNotices() reads them from `notices`. So they must be there first, and they are when `notices` joins last:
    // the kernel serves the member of a group that joined last before the others. To join also waits until the kernel
    // has delivered what it is delivering, perhaps unfiltered.
    joinGroups(notices);
    bool any = false;
    MessageStart message{};
    ssize_t size = 0;
    while ((size = recv(events, &message, sizeof message, 0)) >= 0 || errno == ENOBUFS) {
        any = any || size < 0 || mayConcernCaches(message);
    }
    return any;
}

bool EventSocket::isEmpty() const
{
    pollfd record{events, POLLIN, 0};
    return poll(&record, 1, 0) == 0;
}

void EventSocket::replace()
{
    if (!replaced && empty >= 0) {
        putUnder(slot, empty);
        replaced = true;
    }
}

void EventSocket::beginPass()
{
    std::lock_guard<std::mutex> const guard(passMutex);
    running = this;
    if (empty < 0) { // without a free descriptor the pass cannot be ended early
        empty = openSocket();
    }
    if (stopped) {
        replace();
    }
}

void EventSocket::endPass()
{
    std::lock_guard<std::mutex> const guard(passMutex);
    running = nullptr;
    if (replaced) {
        putUnder(slot, events);
        replaced = false;
    }
}

void EventSocket::endRunningPass()
{
    std::lock_guard<std::mutex> const guard(passMutex);
    if (running != nullptr) {
        running->replace();
    }
}

void EventSocket::stop()
{
    std::lock_guard<std::mutex> const guard(passMutex);
    stopped = true;
    if (running == this) {
        replace();
    }
}

void EventSocket::askForLink(std::string const& name) const { ask(events, 0, name.c_str()); }

bool EventSocket::askForLink(int index) const { return ask(events, index, nullptr); }

EventSocket::Notices EventSocket::takeNotices()
{
    struct {
        nlmsghdr header;
        tcmsg discipline;
    } message{};
    Notices result;
    while (true) {
        if (recv(notices, &message, sizeof message, 0) < 0) {
            if (errno != ENOBUFS) {
                return result;
            }
            result.overrun = true;
            continue;
        }
        unsigned int const type = message.header.nlmsg_type & 0xFFFEU; // "deleted" is the number after "new"
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

} // namespace netlink_route
