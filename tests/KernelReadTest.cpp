// Start and stop, and the queries, on a real kernel.
#include "Support.h"

#include "Faults.h"
#include "MyLock.h"

#include <csignal>
#include <fcntl.h>
#include <iterator>
#include <memory>
#include <netlink/cache.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace netlink_route {
namespace {

using test::eventually;
using test::ipv4;
using test::mirrorsKernel;
using test::run;
using testing::ElementsAre;
using testing::MatchesRegex;

class Start : public test::KernelTest {};
class Queries : public test::KernelTest {};

TEST_F(Start, LogsItsSteps)
{
    test::TraceLevel const scope(8);
    {
        CacheManager const manager;
        EXPECT_THAT(manager.getListOfInterfaces(), testing::UnorderedElementsAre("lo", "v0", "v1"));
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

// What one of them provides to libnl for a moment, no other may use; and each stops in the middle of events.
TEST_F(Start, FourThreadsMakeManagersAtOnce)
{
    test::TraceLevel const scope(9);
    auto const descriptors = test::openDescriptors();
    {
        test::Meanwhile const others([] {
            run("for i in 1 2 3 4 5 6 7 8; do echo link set v0 mtu 140$i; echo address add 10.$i.0.1/24 dev v0; "
                "echo address delete 10.$i.0.1/24 dev v0; done | ip -batch -");
        });
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([] {
                for (int k = 0; k < 50; ++k) {
                    CacheManager const manager;
                    EXPECT_TRUE(manager.getInterface("v1").isAddedToKernel());
                    std::this_thread::sleep_for(std::chrono::microseconds(k * 40));
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
    EXPECT_EQ(descriptors, test::openDescriptors());
    EXPECT_TRUE(test::lockIsFree());
}

// Leaves exactly that many descriptors free for as long as it lives.
class FewDescriptors {
public:
    explicit FewDescriptors(int left)
    {
        getrlimit(RLIMIT_NOFILE, &before);
        int end = 1; // poll needs one
        for (; left > 0; ++end) {
            left -= fcntl(end, F_GETFD) < 0 ? 1 : 0;
        }
        rlimit const low{static_cast<rlim_t>(end), before.rlim_max};
        setrlimit(RLIMIT_NOFILE, &low);
    }
    ~FewDescriptors() { setrlimit(RLIMIT_NOFILE, &before); }
    FewDescriptors(FewDescriptors const&) = delete;
    FewDescriptors& operator=(FewDescriptors const&) = delete;

private:
    rlimit before{};
};

TEST_F(Start, WithFewDescriptorsIsCrippledAtMost)
{
    run("ip address add 10.0.0.1/24 dev v0; ip link set v0 up; ip route add 10.8.0.0/24 via 10.0.0.2");
    Interface wanted("v0");
    wanted.setUp();
    Route route("r");
    route.setDestination(ipv4("10.9.0.0/24"));
    route.setGateway(ipv4("10.0.0.2/32"));
    std::string const before = test::configuration();
    for (int left = 12; left >= 0; --left) {
        auto scope = std::make_unique<FewDescriptors>(left);
        test::TraceLevel const level(3);
        CacheManager manager;
        bool const works = left >= 7; // two of libnl; requests, events and their decoy, notices, readings
        EXPECT_EQ(left == 0 ? 2U : (works ? 0U : 1U), test::takeLog().size()) << left;
        for (bool const again : {false, true}) {
            EXPECT_EQ(works, manager.getInterface("v0").isAddedToKernel()) << left;
            EXPECT_EQ(works, manager.getVlan("v0").isAddedToKernel());
            EXPECT_EQ(works, !manager.getListOfInterfaces().empty());
            EXPECT_EQ(works, manager.getRoute(ipv4("10.8.0.0/24")).isAddedToKernel());
            EXPECT_EQ(works, !manager.getIps(manager.getInterface("v0").getIndex()).empty());
            if (!again) {
                scope.reset();
            }
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
    {
        FewDescriptors const scope(0);
        EXPECT_TRUE(manager.getInterface("v0").isAddedToKernel());
    }
    run("ip link set v0 mtu 1300; ip address add 10.7.0.1/24 dev v1");
    EXPECT_TRUE(mirrorsKernel(manager));
}

TEST_F(Start, WithoutAThreadAnswersNothing)
{
    test::threadFails = true;
    CacheManager manager;
    test::threadFails = false;
    EXPECT_FALSE(manager.getInterface("v0").isAddedToKernel());
    EXPECT_TRUE(manager.getListOfInterfaces().empty());
    EXPECT_TRUE(manager.add(ipv4("10.0.0.1/24"), 1));
}

TEST_F(Start, TwoManagersKeepTheirOwnCaches)
{
    CacheManager const first;
    {
        CacheManager const second;
        EXPECT_EQ(nullptr, nl_cache_mngt_require_safe("route/link")); // libnl's parsers would use it without the lock
        run("ip address add 10.0.0.1/24 dev v0; ip link set v0 up; ip route add 10.1.0.0/24 dev v0; ip link "
            "set v0 down");
        EXPECT_TRUE(mirrorsKernel(first));
        EXPECT_TRUE(mirrorsKernel(second));
    }
    EXPECT_TRUE(eventually([&] { return !first.getRoute(ipv4("10.1.0.0/24")).isAddedToKernel(); }));
}

TEST_F(Start, SignalsCostOneLineEachAtMost)
{
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    sigset_t ours;
    sigemptyset(&ours);
    sigaddset(&ours, SIGUSR1);
    CacheManager const manager;
    pthread_sigmask(SIG_BLOCK, &ours, nullptr); // so the event thread receives it
    test::TraceLevel const scope(3);
    constexpr std::size_t signals = 1000;
    for (std::size_t i = 0; i < signals; ++i) {
        kill(getpid(), SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    pthread_sigmask(SIG_UNBLOCK, &ours, nullptr);
    auto const lines = test::takeLogOfOthers();
    EXPECT_GT(lines.size(), 0U);
    EXPECT_LE(lines.size(), signals);
    EXPECT_THAT(lines, testing::Each("3 [ERROR] CacheManager.cpp:N (cacheThread) - got -1 error when trying to poll!"));
    run("ip link set v0 mtu 1300");
    EXPECT_TRUE(mirrorsKernel(manager));
}

TEST_F(Start, StopsThoughPollFails)
{
    auto manager = std::make_unique<CacheManager>();
    test::TraceLevel const scope(3);
    test::pollFails = true;
    run("ip link set v0 mtu 1300"); // ends the poll that waits
    EXPECT_TRUE(eventually([] { return !test::takeLogOfOthers().empty(); }));
    manager.reset();
    test::pollFails = false;
}

TEST_F(Start, ForkedChildCanLeaveTheManager)
{
    auto manager = std::make_unique<CacheManager>();
    pid_t const child = fork();
    if (child == 0) {
        alarm(10);
        test::cancelled = false;
        manager.reset();
        _exit(test::cancelled ? 1 : 0); // a thread that the child does not have
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
                testing::ElementsAreArray(
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

TEST_F(Queries, ReadEveryField)
{
    run("ip link set v0 mtu 1400 group 7 alias 'the uplink' txqueuelen 500 address 02:00:00:00:00:01 mode "
        "dormant; "
        "ip address add 192.168.1.10/24 dev v0; ip address add 10.0.0.1/8 dev v0; "
        "ip -6 address add fe80::1/64 dev v0; ip -6 address add fe80::1/64 dev v1; ip link set v0 promisc on "
        "up");
    CacheManager const manager;
    Interface link = manager.getInterface("v0");
    EXPECT_TRUE(link.isAddedToKernel());
    EXPECT_EQ(std::stoi(test::output("ip -o link show v0")), link.getIndex());
    Interface expected("v0");
    expected.setIndex(link.getIndex());
    EXPECT_TRUE(expected.setGroup(7) && expected.setMac(Address("02:00:00:00:00:01", Address::MAC)) &&
                expected.setBroadcast(Address("ff:ff:ff:ff:ff:ff", Address::MAC)) && expected.setMtu(1400) &&
                expected.setTxQueueLength(500) && expected.setAlias("the uplink") && expected.setArpType(1) &&
                expected.setQueueingDiscipline("noqueue") && expected.setPromiscuityCount(1) &&
                expected.setModeDormant(true) && expected.setUp() && expected.addIp(ipv4("192.168.1.10/24"), false));
    expected.setNbrTxQueues(link.getNbrTxQueues());
    expected.setNbrRxQueues(link.getNbrRxQueues());
    std::string const rx = std::to_string(link.getNbrRxQueues()); // 0: a kernel without RPS tells none
    std::string const queues = std::to_string(link.getNbrTxQueues()) + (rx == "0" ? " " : " numrxqueues " + rx + " ");
    EXPECT_THAT(test::output("ip -d link show v0"), testing::HasSubstr("numtxqueues " + queues));
    EXPECT_EQ(expected.toString(), link.toString());
    EXPECT_EQ(link.toString(), manager.getVlan("v0").Interface::toString());
    EXPECT_TRUE(manager.getInterface("v1").getIps().empty()); // it has IPv6 addresses alone
}

} // namespace
} // namespace netlink_route
