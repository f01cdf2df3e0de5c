#include "Faults.h"

#include "Support.h"

#include <array>
#include <cerrno>
#include <dlfcn.h>
#include <fcntl.h>
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
#include <sched.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace test {

std::atomic<int> failingRequests{0};
std::atomic<bool> threadFails{false};
std::atomic<bool> pollFails{false};
std::atomic<bool> fillTwice{false};
std::atomic<bool> hideRouteRemovals{false};
std::atomic<bool> cancelled{false};
std::atomic<int> sleeps{0};
std::atomic<int> tablesRead{0};
std::atomic<long> objectsApplied{0};
std::atomic<int> unlockedChanges{0};

} // namespace test

namespace {

thread_local int allocations = 0;
thread_local int failFrom = 0;
std::mutex hookMutex;
std::string linkRequest;
std::function<void()> actionBefore;
std::function<void()> actionDuring;
std::function<void()> passAction;

template <typename Function>
Function* next(char const* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

bool failsNow() { return failFrom != 0 && ++allocations >= failFrom; }

void lookAt(nlmsghdr const& request)
{
    int const type = request.nlmsg_type;
    bool const isDump = (request.nlmsg_flags & NLM_F_DUMP) == NLM_F_DUMP;
    bool const isWhole = type != RTM_GETROUTE || request.nlmsg_len <= NLMSG_LENGTH(sizeof(rtmsg)); // else of one link
    test::tablesRead +=
        isDump && isWhole && (type == RTM_GETLINK || type == RTM_GETADDR || type == RTM_GETROUTE) ? 1 : 0;
    if (type == RTM_NEWLINK || type == RTM_SETLINK) {
        std::lock_guard<std::mutex> const guard(hookMutex);
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
    if (test::failingRequests > 0) {
        errno = ENOBUFS;
        return test::failingRequests-- % 2 == 0 ? -1 : static_cast<ssize_t>(message->msg_iov[0].iov_len);
    }
    auto const& request = *static_cast<nlmsghdr const*>(message->msg_iov[0].iov_base);
    bool const isDump = (request.nlmsg_flags & NLM_F_DUMP) == NLM_F_DUMP;
    lookAt(request);
    if (isDump) {
        runOnce(actionBefore);
    }
    ssize_t const size = next<decltype(sendmsg)>("sendmsg")(descriptor, message, flags);
    if (isDump) {
        runOnce(actionDuring);
    }
    return size;
}

ssize_t recvmsg(int descriptor, msghdr* message, int flags)
{
    ssize_t const size = next<decltype(recvmsg)>("recvmsg")(descriptor, message, flags);
    auto* const header = static_cast<nlmsghdr*>(message->msg_iov[0].iov_base);
    if (test::hideRouteRemovals && size >= NLMSG_HDRLEN && header->nlmsg_type == RTM_DELROUTE) {
        header->nlmsg_type = NLMSG_NOOP;
    }
    return size;
}

int pthread_create(pthread_t* thread, pthread_attr_t const* attributes, void* (*start)(void*), void* argument)
{
    auto* const create = next<decltype(pthread_create)>("pthread_create");
    return test::threadFails ? EAGAIN : create(thread, attributes, start, argument);
}

int pthread_cancel(pthread_t thread)
{
    test::cancelled = true;
    return next<decltype(pthread_cancel)>("pthread_cancel")(thread);
}

int poll(pollfd* records, nfds_t count, int milliseconds)
{
    if (test::pollFails && milliseconds != 0) {
        errno = EINVAL;
        return -1;
    }
    return next<decltype(poll)>("poll")(records, count, milliseconds);
}

int nl_cache_refill(nl_sock* socket, nl_cache* cache)
{
    auto* const fill = next<decltype(nl_cache_refill)>("nl_cache_refill");
    int const result = fill(socket, cache);
    if (!test::fillTwice || result < 0) {
        return result;
    }
    nl_cache* const again = nl_cache_alloc(nl_cache_get_ops(cache));
    fill(socket, again);
    for (nl_object* object = nl_cache_get_first(again); object != nullptr; object = nl_cache_get_next(object)) {
        nl_cache_add(cache, object); // refused where the cache knows that it has it
    }
    nl_cache_free(again);
    return result;
}

int nl_cache_move(nl_cache* cache, nl_object* object)
{
    ++test::objectsApplied;
    runOnce(passAction);
    test::unlockedChanges += getpid() != gettid() && test::lockIsFree() ? 1 : 0;
    return next<decltype(nl_cache_move)>("nl_cache_move")(cache, object);
}

unsigned int sleep(unsigned int seconds)
{
    ++test::sleeps;
    return next<decltype(sleep)>("sleep")(seconds);
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

void beforeReading(std::function<void()> action) { keep(actionBefore, std::move(action)); }

void duringReading(std::function<void()> action) { keep(actionDuring, std::move(action)); }

void duringPass(std::function<void()> action) { keep(passAction, std::move(action)); }

std::string lastLinkRequest()
{
    std::lock_guard<std::mutex> const guard(hookMutex);
    return linkRequest;
}

namespace {

// The port of the socket that is in the group of the links.
unsigned int eventPort()
{
    for (int descriptor = 0; descriptor < 1024; ++descriptor) {
        std::array<unsigned int, 8> groups{}; // the kernel tells of more than one word
        socklen_t size = sizeof groups;
        sockaddr_nl local{};
        socklen_t length = sizeof local;
        bool const isMember =
            getsockopt(descriptor, SOL_NETLINK, NETLINK_LIST_MEMBERSHIPS, groups.data(), &size) == 0 &&
            (groups[0] & 1U) != 0;
        if (isMember && getsockname(descriptor, reinterpret_cast<sockaddr*>(&local), &length) == 0) {
            return local.nl_pid;
        }
    }
    return 0;
}

} // namespace

void notifyManager(std::vector<char> message)
{
    sockaddr_nl manager{};
    manager.nl_family = AF_NETLINK;
    manager.nl_pid = eventPort();
    ASSERT_NE(0U, manager.nl_pid);
    int const descriptor = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    EXPECT_EQ(static_cast<ssize_t>(message.size()), sendto(descriptor, message.data(), message.size(), 0,
                                                           reinterpret_cast<sockaddr*>(&manager), sizeof manager));
    close(descriptor);
}

OtherNamespace::OtherNamespace()
{
    std::thread([this] {
        EXPECT_EQ(0, unshare(CLONE_NEWNET));
        descriptor = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    }).join();
    run("ip link set lo up");
}

OtherNamespace::~OtherNamespace() { close(descriptor); }

std::string OtherNamespace::path() const
{
    return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(descriptor);
}

void OtherNamespace::run(std::string const& command) const
{
    std::thread([&] {
        EXPECT_EQ(0, setns(descriptor, CLONE_NEWNET));
        test::run(command);
    }).join();
}

} // namespace test
