#include "Faults.h"

#include "KernelNumbers.h"
#include "Support.h"

#include <cerrno>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <mutex>
#include <netlink/cache.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/route/link.h>
#include <netlink/route/nexthop.h>
#include <netlink/route/route.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

using test::next;

namespace {

thread_local int allocations = 0;
thread_local int failFrom = 0;
thread_local bool isAlone = false; // in the constructor or the destructor, which take no lock
std::mutex hookMutex;
std::string requests;
std::string linkRequest;
std::function<void()> actionDuring;
std::function<void()> passAction;

bool failsNow() { return failFrom != 0 && ++allocations >= failFrom; }

// As takeRequests() shows it, 0: not at all.
char letterOf(nlmsghdr const& request)
{
    bool const isDump = (request.nlmsg_flags & NLM_F_DUMP) == NLM_F_DUMP;
    switch (request.nlmsg_type) {
    case RTM_GETLINK:
        return isDump ? 'L' : 'w';
    case RTM_GETADDR:
        return 'A';
    case RTM_GETROUTE:
        return request.nlmsg_len <= NLMSG_LENGTH(sizeof(rtmsg)) ? 'R' : 'r';
    case netlink_route::getNexthop:
        return 'n';
    default:
        return 0;
    }
}

void lookAt(nlmsghdr const& request, char letter)
{
    std::lock_guard<std::mutex> const guard(hookMutex);
    requests.append(letter != 0 ? 1 : 0, letter);
    if (request.nlmsg_type == RTM_NEWLINK || request.nlmsg_type == RTM_SETLINK) {
        linkRequest.assign(reinterpret_cast<char const*>(&request), request.nlmsg_len);
    }
}

void keep(std::function<void()>& place, std::function<void()> action)
{
    std::lock_guard<std::mutex> const guard(hookMutex);
    place = std::move(action);
}

void runOnce(std::function<void()>& action)
{
    std::unique_lock<std::mutex> guard(hookMutex);
    auto const once = std::exchange(action, nullptr);
    guard.unlock();
    if (once) {
        once();
    }
}

} // namespace

// These stand before the C library's and libnl's, whose place the program's own symbols take.
extern "C" {
ssize_t sendmsg(int descriptor, msghdr const* message, int flags)
{
    int const failing = test::failingRequests > 0 ? test::failingRequests-- : 0;
    if (failing % 2 != 0) {
        return static_cast<ssize_t>(message->msg_iov[0].iov_len);
    }
    auto const& request = *static_cast<nlmsghdr const*>(message->msg_iov[0].iov_base);
    bool const isDump = (request.nlmsg_flags & NLM_F_DUMP) == NLM_F_DUMP;
    lookAt(request, letterOf(request));
    ssize_t const size = next<decltype(sendmsg)>("sendmsg")(descriptor, message, flags);
    if (isDump) {
        runOnce(actionDuring);
    }
    if (failing > 0) {
        errno = ENOBUFS;
        return -1;
    }
    return size;
}

ssize_t sendto(int descriptor, void const* data, std::size_t size, int flags, sockaddr const* to, socklen_t length)
{
    auto const* const request = static_cast<nlmsghdr const*>(data);
    if (to != nullptr && to->sa_family == AF_NETLINK && request->nlmsg_type == RTM_GETLINK) {
        lookAt(*request, 'l');
    }
    return next<decltype(sendto)>("sendto")(descriptor, data, size, flags, to, length);
}

ssize_t recvmsg(int descriptor, msghdr* message, int flags)
{
    ssize_t const size = next<decltype(recvmsg)>("recvmsg")(descriptor, message, flags);
    auto* const header = static_cast<nlmsghdr*>(message->msg_iov[0].iov_base);
    bool const isPiece = size >= NLMSG_HDRLEN && (header->nlmsg_flags & NLM_F_MULTI) != 0 && (flags & MSG_PEEK) == 0;
    if (isPiece && header->nlmsg_type == test::interruptedDump) {
        header->nlmsg_flags |= NLM_F_DUMP_INTR;
        test::interruptedDump = 0;
    }
    return size;
}

int pthread_create(pthread_t* thread, pthread_attr_t const* attributes, void* (*start)(void*), void* argument)
{
    isAlone = false;
    auto* const create = next<decltype(pthread_create)>("pthread_create");
    return test::threadFails ? EAGAIN : create(thread, attributes, start, argument);
}

int pthread_cancel(pthread_t thread)
{
    test::cancelled = true;
    isAlone = true;
    return next<decltype(pthread_cancel)>("pthread_cancel")(thread);
}

int poll(pollfd* records, nfds_t count, int milliseconds)
{
    if (test::pollFails && milliseconds != 0) {
        errno = EINVAL;
        return -1;
    }
    test::timedPolls += milliseconds >= 0 ? 1 : 0;
    return next<decltype(poll)>("poll")(records, count, milliseconds);
}

int dup3(int from, int to, int flags)
{
    if (test::replacements++ % 2 == 0) {
        errno = EBUSY;
        return -1;
    }
    return next<decltype(dup3)>("dup3")(from, to, flags);
}

int setsockopt(int descriptor, int level, int option, void const* value, socklen_t size)
{
    if (test::refuseLargeBuffers && level == SOL_SOCKET && option == SO_RCVBUFFORCE) {
        errno = EPERM;
        return -1;
    }
    return next<decltype(setsockopt)>("setsockopt")(descriptor, level, option, value, size);
}

int nl_cache_alloc_name(char const* kind, nl_cache** cache)
{
    isAlone = true;
    return next<decltype(nl_cache_alloc_name)>("nl_cache_alloc_name")(kind, cache);
}

int nl_cache_move(nl_cache* cache, nl_object* object)
{
    ++test::objectsApplied;
    runOnce(passAction);
    test::unlockedChanges += !isAlone && test::lockIsFree() ? 1 : 0;
    return next<decltype(nl_cache_move)>("nl_cache_move")(cache, object);
}

void nl_object_put(nl_object* object)
{
    bool const isShared = object != nullptr && !isAlone && nl_object_get_cache(object) != nullptr;
    test::unlockedChanges += isShared && test::lockIsFree() ? 1 : 0;
    static auto* const put = next<decltype(nl_object_put)>("nl_object_put");
    put(object);
}

unsigned int sleep(unsigned int seconds)
{
    test::sleeps += static_cast<int>(seconds);
    pthread_testcancel();
    return test::signalEndsSleep ? seconds : next<decltype(sleep)>("sleep")(seconds);
}

rtnl_link* rtnl_link_alloc() { return failsNow() ? nullptr : next<decltype(rtnl_link_alloc)>("rtnl_link_alloc")(); }

rtnl_route* rtnl_route_alloc() { return failsNow() ? nullptr : next<decltype(rtnl_route_alloc)>("rtnl_route_alloc")(); }

rtnl_nexthop* rtnl_route_nh_alloc()
{
    return failsNow() ? nullptr : next<decltype(rtnl_route_nh_alloc)>("rtnl_route_nh_alloc")();
}
}

namespace test {

void failAllocations(int first)
{
    allocations = 0;
    failFrom = first;
}

void duringReading(std::function<void()> action) { keep(actionDuring, std::move(action)); }

void duringPass(std::function<void()> action) { keep(passAction, std::move(action)); }

std::string takeRequests()
{
    std::lock_guard<std::mutex> const guard(hookMutex);
    return std::exchange(requests, "");
}

std::string lastLinkRequest()
{
    std::lock_guard<std::mutex> const guard(hookMutex);
    return linkRequest;
}

void notify(int group, std::vector<char> message)
{
    sockaddr_nl members{};
    members.nl_family = AF_NETLINK;
    members.nl_groups = 1U << (group - 1);
    int const descriptor = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    EXPECT_EQ(static_cast<ssize_t>(message.size()), sendto(descriptor, message.data(), message.size(), 0,
                                                           reinterpret_cast<sockaddr*>(&members), sizeof members));
    close(descriptor);
}

} // namespace test
