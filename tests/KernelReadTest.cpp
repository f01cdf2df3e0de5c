// Start and stop, and the queries, on a real kernel.
#include "Support.h"

#include "MyLock.h"

#include <atomic>
#include <csignal>
#include <filesystem>
#include <memory>
#include <netlink/errno.h>
#include <sys/resource.h>
#include <sys/syscall.h>
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
    const test::TraceLevel scope(8);
    {
        const CacheManager manager;
        EXPECT_THAT(manager.getListOfInterfaces(), testing::UnorderedElementsAre("lo", "v0", "v1"));
    }
    EXPECT_THAT(test::takeLog(),
                ElementsAre(MatchesRegex("7 \\[DEBUG2\\] RouteSocket.cpp:N \\(RouteSocket\\) - get socket with fs "
                                         "[0-9]+ and nl_pid -?[0-9]+ "),
                            MatchesRegex("7 \\[DEBUG1\\] CacheManager.cpp:N \\(CacheManager\\) - cache route link "
                                         "initializing at pointer 0x[0-9a-f]+"),
                            MatchesRegex("7 \\[DEBUG1\\] CacheManager.cpp:N \\(CacheManager\\) - now creating thread "
                                         "from instance 0x[0-9a-f]+"),
                            "7 [DEBUG2] CacheManager.cpp:N (CacheManager) - cache route link init done",
                            MatchesRegex("7 \\[DEBUG2\\] RouteSocket.cpp:N \\(~RouteSocket\\) - freeing socket with "
                                         "fs [0-9]+ and nl_pid -?[0-9]+ ")));
}

TEST_F(Start, ThousandManagersLeaveNothing)
{
    const auto startAndStop = [](int count) {
        for (int i = 0; i < count; ++i) {
            const CacheManager manager;
        }
    };
    startAndStop(100);
    const auto descriptors = test::openDescriptors();
    const long memory = test::residentKiB();
    startAndStop(1000);
    EXPECT_EQ(descriptors, test::openDescriptors());
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // which keep what was freed
    EXPECT_LT(test::residentKiB() - memory, 512);
#else
    static_cast<void>(memory);
#endif
}

TEST_F(Start, StopsInTheMiddleOfEvents)
{
    const test::TraceLevel scope(9);
    std::atomic<bool> stop{false};
    std::thread other([&] {
        while (!stop) {
            run("for i in 1 2 3 4 5 6 7 8; do echo link set v0 mtu 140$i; echo link set v1 alias $i; done | "
                "ip -batch -");
        }
    });
    for (int i = 0; i < 300; ++i) {
        const CacheManager manager;
        EXPECT_TRUE(manager.getInterface("v0").isAddedToKernel());
        std::this_thread::sleep_for(std::chrono::microseconds(i * 7));
    }
    stop = true;
    other.join();
    EXPECT_TRUE(test::lockIsFree());
}

// Leaves exactly that many descriptors free for as long as it lives.
class FewDescriptors {
public:
    explicit FewDescriptors(std::size_t left)
    {
        getrlimit(RLIMIT_NOFILE, &before);
        const rlimit low{64, before.rlim_max};
        setrlimit(RLIMIT_NOFILE, &low);
        for (int taken = dup(0); taken >= 0; taken = dup(0)) {
            fillers.push_back(taken);
        }
        for (; left > 0; --left) {
            close(fillers.back());
            fillers.pop_back();
        }
    }
    ~FewDescriptors()
    {
        for (const int filler : fillers) {
            close(filler);
        }
        setrlimit(RLIMIT_NOFILE, &before);
    }
    FewDescriptors(FewDescriptors const&) = delete;
    FewDescriptors& operator=(FewDescriptors const&) = delete;

private:
    rlimit before{};
    std::vector<int> fillers;
};

TEST_F(Start, WithFewDescriptorsIsCrippledAtMost)
{
    run("ip address add 10.0.0.1/24 dev v0; ip link set v0 up; ip route add 10.8.0.0/24 via 10.0.0.2");
    Interface wanted("v0");
    Route route("r");
    route.setDestination(ipv4("10.9.0.0/24"));
    route.setGateway(ipv4("10.0.0.2/32"));
    const std::string before = test::output("ip -d address; ip route");
    for (std::size_t left = 9; left-- > 0;) {
        auto scope = std::make_unique<FewDescriptors>(left);
        const test::TraceLevel level(3);
        CacheManager manager;
        const bool works = left >= 3; // a socket of its own, two of the cache manager
        EXPECT_EQ(left == 0 ? 2U : (works ? 0U : 1U), test::takeLog().size()) << left;
        for (const bool again : {false, true}) {
            EXPECT_EQ(works, manager.getInterface("v0").isAddedToKernel()) << left;
            EXPECT_EQ(works, manager.getVlan("v0").isAddedToKernel());
            EXPECT_EQ(works, !manager.getListOfInterfaces().empty());
            EXPECT_EQ(works, manager.getRoute(ipv4("10.8.0.0/24")).isAddedToKernel());
            EXPECT_EQ(works, !manager.getIps(manager.getInterface("v0").getIndex()).empty());
            if (!works) { // and stays so when there are descriptors again
                EXPECT_FALSE(manager.update(wanted, -1) || manager.update(Vlan("v0.7"), -1) || manager.remove(wanted));
                EXPECT_FALSE(manager.update(route, 0) || manager.remove(route));
                EXPECT_FALSE(manager.add(ipv4("10.9.0.1/24"), 1) || manager.remove(ipv4("10.0.0.1/24"), 3));
            }
            if (!again) {
                scope.reset();
            }
        }
    }
    EXPECT_EQ(before, test::output("ip -d address; ip route"));
    const CacheManager manager;
    EXPECT_TRUE(mirrorsKernel(manager));
    {
        const FewDescriptors scope(0);
        EXPECT_TRUE(manager.getInterface("v0").isAddedToKernel());
    }
    run("ip link set v0 mtu 1300; ip address add 10.7.0.1/24 dev v1");
    EXPECT_TRUE(mirrorsKernel(manager));
}

TEST_F(Start, TwoManagersKeepTheirOwnCaches)
{
    const CacheManager first;
    {
        const CacheManager second;
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
    const CacheManager manager;
    std::vector<int> threads; // the event thread, and perhaps a sanitizer's own, which blocks signals
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        const int thread = std::stoi(entry.path().filename());
        if (thread != getpid()) {
            threads.push_back(thread);
        }
    }
    const test::TraceLevel scope(3);
    constexpr std::size_t signals = 1000;
    for (std::size_t i = 0; i < signals; ++i) {
        for (const int thread : threads) {
            syscall(SYS_tgkill, getpid(), thread, SIGUSR1);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    const auto lines = test::takeLogOfOthers();
    EXPECT_GT(lines.size(), 0U);
    EXPECT_LE(lines.size(), signals);
    EXPECT_THAT(lines, testing::Each("3 [ERROR] CacheManager.cpp:N (cacheThread) - got -1 error when trying to poll!"));
    run("ip link set v0 mtu 1300");
    EXPECT_TRUE(mirrorsKernel(manager));
}

TEST_F(Queries, TakeTheLockOneAfterTheOther)
{
    run("ip address add 10.0.0.1/24 dev v0");
    const CacheManager manager;
    const auto locksOf = [](std::function<void()> const& query) {
        const test::TraceLevel scope(9);
        query();
        std::vector<std::string> locks;
        for (std::string const& line : test::takeLog()) {
            const auto lock = line.find("MyLock) - ");
            if (lock != std::string::npos) {
                locks.push_back(line.substr(0, line.find(' ')) + line.substr(lock + 9));
            }
        }
        return locks;
    };
    const auto linesFor = [](std::vector<std::string> const& reasons) {
        std::vector<std::string> lines;
        for (std::string const& reason : reasons) {
            lines.push_back("7 try locking mutex because " + reason);
            lines.push_back("7 mutex locked because " + reason);
            lines.push_back("7 unlocking mutex because " + reason);
        }
        return lines;
    };
    const std::string ips = "CacheManager::getIps";
    EXPECT_EQ(linesFor({ips}), locksOf([&] { manager.getIps(2); }));
    EXPECT_EQ(linesFor({"getInterface", ips}), locksOf([&] { manager.getInterface("v0"); }));
    EXPECT_EQ(linesFor({"getInterface"}), locksOf([&] { manager.getInterface("none"); }));
    EXPECT_EQ(linesFor({"getVlan", ips}), locksOf([&] { manager.getVlan("v0"); }));
    EXPECT_EQ(linesFor({"getListOfInterfaces"}), locksOf([&] { manager.getListOfInterfaces(); }));
    EXPECT_EQ(linesFor({"getRoute"}), locksOf([&] { manager.getRoute(ipv4("")); }));
}

TEST_F(Queries, EventPassTakesTheLockOnce)
{
    const CacheManager manager;
    ASSERT_TRUE(eventually([start = test::refillCount()] { return test::refillCount() > start; })); // the first check
    const test::TraceLevel scope(9);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    run("ip link set v0 mtu 1300");
    ASSERT_TRUE(eventually([&] { return manager.getInterface("v0").getMtu() == 1300; }));
    EXPECT_THAT(test::takeLogOfOthers(),
                testing::ElementsAreArray(
                    {"7 [DEBUG3] CacheManager.cpp:N (cacheThread) - got 1 messages from netlink route event socket",
                     "7 [DEBUG3] CacheManager.cpp:N (MyLock) - try locking mutex because nl_cache_mngr_data_ready",
                     "7 [DEBUG3] CacheManager.cpp:N (MyLock) - mutex locked because nl_cache_mngr_data_ready",
                     "7 [DEBUG2] CacheManager.cpp:N (changeCb) - cache type callback!",
                     "7 [DEBUG3] CacheManager.cpp:N (~MyLock) - unlocking mutex because nl_cache_mngr_data_ready"}));
}

TEST_F(Queries, TellWhatIsNotThere)
{
    const CacheManager manager;
    const std::string start = "7 [DEBUG2] CacheManager.cpp:N ";
    const test::TraceLevel scope(8);
    EXPECT_EQ(Interface("none").toString(), manager.getInterface("none").toString());
    EXPECT_FALSE(manager.getInterface("none").isAddedToKernel());
    Vlan vlan = manager.getVlan("none.100");
    EXPECT_FALSE(vlan.isAddedToKernel());
    EXPECT_EQ(0, vlan.getVlanIndex());
    EXPECT_TRUE(manager.getIps(0).empty());
    EXPECT_EQ("", manager.getRoute(ipv4("10.9.0.0/24")).getName());
    EXPECT_EQ("", manager.getRoute(ipv4("")).getName());
    const std::string notFound = " - get interface did not find the link in cache with name ";
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
    const CacheManager manager;
    Interface link = manager.getInterface("v0");
    EXPECT_TRUE(link.isAddedToKernel());
    EXPECT_EQ(std::stoi(test::output("ip -o link show v0")), link.getIndex());
    Interface expected("v0");
    expected.setIndex(link.getIndex());
    expected.setGroup(7);
    expected.setMac(Address("02:00:00:00:00:01", Address::MAC));
    expected.setBroadcast(Address("ff:ff:ff:ff:ff:ff", Address::MAC));
    expected.setMtu(1400);
    expected.setTxQueueLength(500);
    expected.setAlias("the uplink");
    expected.setArpType(1);
    expected.setQueueingDiscipline("noqueue");
    expected.setPromiscuityCount(1);
    expected.setModeDormant(true);
    expected.setUp();
    expected.addIp(ipv4("192.168.1.10/24"), false);
    const std::string details = test::output("ip -d -o link show v0");
    const auto queues = [&](std::string const& label) {
        const auto found = details.find(label);
        return found == std::string::npos ? 0U
                                          : static_cast<unsigned int>(std::stoi(details.substr(found + label.size())));
    };
    expected.setNbrTxQueues(queues("numtxqueues "));
    expected.setNbrRxQueues(queues("numrxqueues "));
    EXPECT_EQ(expected.toString(), link.toString());
    Vlan vlan = manager.getVlan("v0");
    EXPECT_TRUE(vlan.isAddedToKernel());
    EXPECT_EQ(-NLE_OPNOTSUPP, vlan.getVlanIndex());
    EXPECT_EQ(link.toString(), static_cast<Interface const&>(vlan).toString());
    EXPECT_TRUE(manager.getInterface("v1").getIps().empty()); // it has IPv6 addresses alone
}

TEST_F(Queries, FollowOtherPrograms)
{
    const CacheManager manager;
    run("ip link add br0 type bridge; ip link set br0 up");
    for (const bool ipv6 : {true, false}) {
        run("sysctl -qw net.ipv6.conf.all.disable_ipv6=" + std::to_string(ipv6 ? 0 : 1));
        for (const char* port : {"nomaster", "master br0"}) {
            for (const std::string step :
                 {"add e0 type veth peer name e1", "set e0 up", "set e0 mtu 1300 alias x", "set e1 up",
                  "set e0 address 02:00:00:00:00:07", "set e0 down", "set e0 name f0", "set f0 up mtu 1200"}) {
                run("ip link " + step);
                EXPECT_TRUE(mirrorsKernel(manager)) << step;
                if (step == "set e0 up") {
                    run(std::string("ip link set e0 ") + port);
                }
            }
            run("ip link delete f0");
            EXPECT_TRUE(mirrorsKernel(manager));
        }
    }
}

} // namespace
} // namespace netlink_route
