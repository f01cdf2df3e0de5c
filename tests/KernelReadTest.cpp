// Start and stop, and the queries, on a real kernel.
#include "Support.h"

#include "Faults.h"
#include "MyLock.h"

#include <fcntl.h>
#include <memory>
#include <netlink/cache.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace netlink_route {
namespace {

using namespace test;
using namespace testing;

class Start : public KernelTest {};
class Queries : public KernelTest {};

TEST_F(Start, LogsItsSteps)
{
    test::TraceLevel const scope(8);
    {
        CacheManager const manager;
        EXPECT_THAT(manager.getListOfInterfaces(), UnorderedElementsAre("lo", "v0", "v1"));
    }
    std::string const socket = "socket with fs [0-9]+ and nl_pid -?[0-9]+ ";
    std::string const start = "CacheManager.cpp:N \\(CacheManager\\) - ";
    EXPECT_THAT(
        test::takeLog(),
        ElementsAre(MatchesRegex("7 \\[DEBUG2\\] RouteSocket.cpp:N \\(RouteSocket\\) - get " + socket),
                    MatchesRegex("7 \\[DEBUG1\\] " + start + "cache route link initializing at pointer 0x[0-9a-f]+"),
                    MatchesRegex("7 \\[DEBUG1\\] " + start + "now creating thread from instance 0x[0-9a-f]+"),
                    MatchesRegex("7 \\[DEBUG2\\] " + start + "cache route link init done"),
                    MatchesRegex("7 \\[DEBUG2\\] RouteSocket.cpp:N \\(~RouteSocket\\) - freeing " + socket)));
}

// Leaves exactly that many descriptors free.
void leaveDescriptors(int left)
{
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = 1; // poll needs one
    for (; left > 0; ++limit.rlim_cur) {
        left -= fcntl(static_cast<int>(limit.rlim_cur), F_GETFD) < 0 ? 1 : 0;
    }
    setrlimit(RLIMIT_NOFILE, &limit);
}

TEST_F(Start, WithoutAThreadOrDescriptorsIsCrippledAtMost)
{
    run("ip address add 10.0.0.1/24 dev v0; ip link set v0 up; ip route add 10.8.0.0/24 via 10.0.0.2");
    Interface wanted("v0");
    wanted.setUp();
    Route const route = routeTo("10.9.0.0/24", "10.0.0.2/32");
    std::string const before = test::configuration();
    for (int left = 13; left >= 0; --left) {
        test::threadFails = left == 13;
        leaveDescriptors(left);
        test::TraceLevel const level(3);
        CacheManager manager;
        bool const has = left >= 7; // two of libnl; requests, events and their decoy, notices, readings
        bool const works = has && !test::threadFails.exchange(false);
        EXPECT_EQ(left == 0 ? 2U : (has ? 0U : 1U), test::takeLog().size()) << left;
        for (int again = 0; again < 2; ++again) {
            EXPECT_EQ(works, manager.getInterface("v0").isAddedToKernel()) << left;
            EXPECT_EQ(works, manager.getVlan("v0").isAddedToKernel());
            EXPECT_EQ(works, !manager.getListOfInterfaces().empty());
            EXPECT_EQ(works, manager.getRoute(ipv4("10.8.0.0/24")).isAddedToKernel());
            EXPECT_EQ(works, !manager.getIps(manager.getInterface("v0").getIndex()).empty());
            leaveDescriptors(500);
        }
        if (!works) { // and stays so when there are descriptors again; but changes need no more than a socket
            EXPECT_TRUE(manager.add(ipv4("10.9.0.1/24"), 1) && manager.remove(ipv4("10.9.0.1/24"), 1));
            EXPECT_EQ(left > 0, manager.update(wanted, -1));
            EXPECT_EQ(left > 0, manager.update(route, 0) && manager.remove(route));
            EXPECT_FALSE(manager.update(wanted, 1));
        }
    }
    EXPECT_EQ(before, test::configuration());
    CacheManager const manager;
    EXPECT_TRUE(mirrorsKernel(manager));
    leaveDescriptors(0);
    EXPECT_TRUE(manager.getInterface("v0").isAddedToKernel());
    leaveDescriptors(500);
    run("ip link set v0 mtu 1300; ip address add 10.7.0.1/24 dev v1");
    EXPECT_TRUE(mirrorsKernel(manager));
}

TEST_F(Start, WithoutAnAnswerOfTheKernelEnds)
{
    test::failingRequests = 1; // libnl would wait for ever
    CacheManager const manager;
    EXPECT_TRUE(manager.getListOfInterfaces().empty());
}

TEST_F(Start, TwoManagersKeepTheirOwnCaches)
{
    CacheManager const first;
    {
        auto lock = std::make_unique<MyLock>("test"); // of which the constructor is free
        CacheManager const second;
        lock.reset();
        EXPECT_EQ(nullptr, nl_cache_mngt_require_safe("route/link")); // libnl's parsers would use it without the lock
        run("ip address add 10.0.0.1/24 dev v0; ip link set v0 up; ip route add 10.1.0.0/24 dev v0; ip link "
            "set v0 down");
        EXPECT_TRUE(mirrorsKernel(first));
        EXPECT_TRUE(mirrorsKernel(second));
    }
    EXPECT_TRUE(eventually([&] { return !first.getRoute(ipv4("10.1.0.0/24")).isAddedToKernel(); }));
}

TEST_F(Start, FailingPollCostsOneLineAndEndsNothing)
{
    auto manager = std::make_unique<CacheManager>();
    for (int const mtu : {1300, 1301}) { // the second one while it is being destroyed
        test::pollFails = false;
        EXPECT_TRUE(mirrorsKernel(*manager));
        test::TraceLevel const scope(3);
        test::pollFails = true;
        run("ip link set v0 mtu " + std::to_string(mtu)); // ends the poll that waits
        std::vector<std::string> lines;
        EXPECT_TRUE(eventually([&] { return !(lines = test::takeLogOfOthers()).empty(); }));
        EXPECT_THAT(lines, Each("3 [ERROR] CacheManager.cpp:N (cacheThread) - got -1 error when trying to poll!"));
    }
    manager.reset();
    test::pollFails = false;
}

// Else its stack would unwind through libnl, or through a destructor, which ends the program.
TEST_F(Start, CallersAreCancelledInPausesAlone)
{
    run("ip address add 10.0.0.1/24 dev v0; ip link set v0 up; ip link set v1 up");
    std::string done;
    std::thread([&] {
        pthread_cancel(pthread_self());
        test::TraceLevel const scope(9);
        {
            RouteSocket const socket;
            CacheManager const made;
        }
        done += "made ";
        CacheManager manager;
        EXPECT_TRUE(manager.getVlan("v0").isAddedToKernel() && !manager.getListOfInterfaces().empty());
        EXPECT_TRUE(manager.add(ipv4("10.8.0.1/24"), 1) && manager.remove(ipv4("10.8.0.1/24"), 1));
        EXPECT_EQ("", manager.getRoute(ipv4("10.9.0.0/24")).getName());
        Route const route = routeTo("10.9.0.0/24", "10.0.0.2/32");
        EXPECT_TRUE(manager.update(Interface("v1"), -1) && manager.update(route, 0));
        EXPECT_FALSE(manager.remove(Vlan("v0.7")) || manager.update(Vlan("v0.7"), 0));
        done += "changed ";
        manager.remove(route);
        done += "paused";
    }).join();
    EXPECT_EQ("made changed ", done);
    EXPECT_TRUE(test::lockIsFree());
}

// The static operations are public: they are called with what is no running manager, too.
TEST_F(Start, EventThreadServesAnyCacheManager)
{
    nl_cache_mngr* manager = nullptr;
    nl_cache* links = nullptr;
    ASSERT_EQ(0, nl_cache_mngr_alloc(nullptr, NETLINK_ROUTE, 0, &manager));
    ASSERT_EQ(0, nl_cache_mngr_add(manager, "route/link", nullptr, nullptr, &links));
    int const timed = test::timedPolls;
    pthread_t thread{};
    ASSERT_EQ(0, pthread_create(&thread, nullptr, CacheManager::cacheThread, manager));
    run("ip link add n0 type veth peer name n1");
    EXPECT_TRUE(eventually([&] {
        MyLock const lock("test");
        return nl_cache_nitems(links) == 5;
    }));
    EXPECT_EQ(timed, test::timedPolls);
    CacheManager own;
    test::TraceLevel const scope(8);
    for (void* const data : {static_cast<void*>(nullptr), static_cast<void*>(&own)}) {
        CacheManager::changeCb(nullptr, nullptr, NL_ACT_NEW, data);
        CacheManager::changeCb(links, nl_cache_get_first(links), NL_ACT_CHANGE, data);
    }
    EXPECT_THAT(test::takeLog(),
                AllOf(SizeIs(4), Each("7 [DEBUG2] CacheManager.cpp:N (changeCb) - cache type callback!")));
    pthread_cancel(thread);
    pthread_join(thread, nullptr);
    nl_cache_mngr_free(manager);
}

TEST_F(Start, ForkedChildCanLeaveTheManager)
{
    auto const descriptors = test::openDescriptors();
    auto manager = std::make_unique<CacheManager>();
    pid_t const child = fork();
    if (child == 0) {
        alarm(10);
        test::cancelled = false;
        manager.reset();
        bool const isClosed = test::openDescriptors() <= descriptors + 1; // one is libnl's
        _exit(test::cancelled || !isClosed ? 1 : 0);                      // a thread that the child does not have
    }
    int status = 1;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    run("ip link set v0 mtu 1300");
    EXPECT_TRUE(mirrorsKernel(*manager));
}

TEST_F(Queries, TakeTheLockOneAfterTheOther)
{
    run("ip address add 10.0.0.1/24 dev v0");
    CacheManager const manager;
    auto const locksOf = [](std::function<void()> const& query) {
        test::TraceLevel const scope(9);
        query();
        std::string reasons;
        std::string const locked = "mutex locked because ";
        for (std::string const& line : test::takeLog()) {
            auto const found = line.find(locked);
            reasons += found != std::string::npos ? line.substr(found + locked.size()) + " " : "";
        }
        return reasons;
    };
    EXPECT_EQ("CacheManager::getIps ", locksOf([&] { manager.getIps(2); }));
    EXPECT_EQ("getInterface CacheManager::getIps ", locksOf([&] { manager.getInterface("v0"); }));
    EXPECT_EQ("getInterface ", locksOf([&] { manager.getInterface("none"); }));
    EXPECT_EQ("getVlan CacheManager::getIps ", locksOf([&] { manager.getVlan("v0"); }));
    EXPECT_EQ("getListOfInterfaces ", locksOf([&] { manager.getListOfInterfaces(); }));
    EXPECT_EQ("getRoute ", locksOf([&] { manager.getRoute(ipv4("")); }));
}

TEST_F(Queries, EventPassTakesTheLockOnce)
{
    CacheManager const manager;
    test::TraceLevel const scope(9);
    run("ip link set v0 mtu 1300");
    ASSERT_TRUE(eventually([&] { return manager.getInterface("v0").getMtu() == 1300; }));
    auto lines = test::takeLogOfOthers(); // those of earlier passes, which changed nothing, may stand before
    lines.erase(lines.begin(), lines.end() - std::min<std::ptrdiff_t>(5, std::distance(lines.begin(), lines.end())));
    EXPECT_THAT(lines,
                ElementsAreArray(
                    {"7 [DEBUG3] CacheManager.cpp:N (cacheThread) - got 1 messages from netlink route event socket",
                     "7 [DEBUG3] CacheManager.cpp:N (MyLock) - try locking mutex because nl_cache_mngr_data_ready",
                     "7 [DEBUG3] CacheManager.cpp:N (MyLock) - mutex locked because nl_cache_mngr_data_ready",
                     "7 [DEBUG2] CacheManager.cpp:N (changeCb) - cache type callback!",
                     "7 [DEBUG3] CacheManager.cpp:N (~MyLock) - unlocking mutex because nl_cache_mngr_data_ready"}));
}

TEST_F(Queries, TellWhatIsNotThere)
{
    CacheManager const manager;
    std::string const start = "7 [DEBUG2] CacheManager.cpp:N ";
    test::TraceLevel const scope(8);
    EXPECT_EQ(Interface("none").toString(), manager.getInterface("none").toString());
    EXPECT_FALSE(manager.getInterface("none").isAddedToKernel());
    Vlan vlan = manager.getVlan("none.100");
    EXPECT_FALSE(vlan.isAddedToKernel());
    EXPECT_EQ(0, vlan.getVlanIndex());
    EXPECT_TRUE(manager.getIps(0).empty());
    EXPECT_EQ("", manager.getRoute(ipv4("10.9.0.0/24")).getName());
    EXPECT_EQ("", manager.getRoute(ipv4("")).getName());
    std::string const notFound = " - get interface did not find the link in cache with name ";
    EXPECT_THAT(test::takeLog(),
                ElementsAre(start + "(getInterface)" + notFound + "none", start + "(getInterface)" + notFound + "none",
                            start + "(getVlan)" + notFound + "none.100",
                            start + "(getIps) - did not found ip address for index 0",
                            start + "(getRoute) - get route did not find the route in cache with destination "
                                    "10.9.0.0/24",
                            start + "(convertToAddress) - cannot convert an empty address",
                            "3 [ERROR] CacheManager.cpp:N (getRoute) - destination not set correct for finding route"));
}

} // namespace
} // namespace netlink_route
