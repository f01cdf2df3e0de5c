// Start and stop, and the queries, on a real kernel.
#include "Support.h"

#include "MyLock.h"

#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
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

std::ptrdiff_t openDescriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
}

long residentKiB()
{
    std::ifstream status("/proc/self/statm");
    long size = 0;
    long resident = 0;
    status >> size >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

TEST_F(Start, LogsItsSteps)
{
    const test::TraceLevel scope(8);
    {
        const CacheManager manager;
        EXPECT_THAT(manager.getListOfInterfaces(), testing::UnorderedElementsAre("lo", "v0", "v1"));
    }
    EXPECT_THAT(
        test::takeLog(),
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
    const auto descriptors = openDescriptors();
    const long memory = residentKiB();
    startAndStop(1000);
    EXPECT_EQ(descriptors, openDescriptors());
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // which keep what was freed
    EXPECT_LT(residentKiB() - memory, 512);
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
    Interface wanted("v0");
    Route route("r");
    route.setDestination(ipv4("10.9.0.0/24"));
    for (std::size_t left = 0; left <= 8; ++left) {
        const FewDescriptors scope(left);
        CacheManager manager;
        const bool works = manager.getInterface("v0").isAddedToKernel();
        EXPECT_EQ(left >= 3, works) << left; // a socket of its own, two of the cache manager
        EXPECT_EQ(works, !manager.getListOfInterfaces().empty());
        EXPECT_EQ(works, manager.getVlan("v0").isAddedToKernel());
        EXPECT_FALSE(manager.getRoute(ipv4("10.9.0.0/24")).isAddedToKernel());
        EXPECT_TRUE(manager.getIps(1).empty());
        if (left < 3) {
            EXPECT_FALSE(manager.update(wanted, 0));
            EXPECT_FALSE(manager.update(Vlan("v0.7"), 0));
            EXPECT_FALSE(manager.update(route, 0));
        }
        if (left == 0) {
            EXPECT_FALSE(manager.remove(wanted) || manager.remove(route));
            EXPECT_FALSE(manager.add(ipv4("10.9.0.1/24"), 1) || manager.remove(ipv4("10.9.0.1/24"), 1));
        }
    }
    const CacheManager manager;
    EXPECT_TRUE(mirrorsKernel(manager));
    {
        const FewDescriptors scope(0);
        EXPECT_TRUE(manager.getInterface("v0").isAddedToKernel());
    }
    run("ip link set v0 mtu 1300 up; ip address add 10.0.0.1/24 dev v0");
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
    EXPECT_THAT(lines, testing::Each(
                           "3 [ERROR] CacheManager.cpp:N (cacheThread) - got -1 error when trying to poll!"));
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

TEST_F(Queries, WaitForTheHolderOfTheLock)
{
    const CacheManager manager;
    std::atomic<bool> answered{false};
    std::thread asking;
    {
        const MyLock lock("test");
        asking = std::thread([&] {
            manager.getListOfInterfaces();
            answered = true;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_FALSE(answered);
    }
    asking.join();
    EXPECT_TRUE(answered);
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
    EXPECT_THAT(
        test::takeLog(),
        ElementsAre(
            start + "(getInterface)" + notFound + "none", start + "(getInterface)" + notFound + "none",
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
    const auto queues = [details = test::output("ip -d -o link show v0")](std::string const& label) {
        const auto found = details.find(label);
        return found == std::string::npos ? "0"
                                          : std::to_string(std::stoi(details.substr(found + label.size())));
    };
    EXPECT_EQ("name index           v0 and index " + std::to_string(link.getIndex()) +
                  "\n"
                  "group:               7\n"
                  "mac address:         02:00:00:00:00:01\n"
                  "broadcast_address:   ff:ff:ff:ff:ff:ff\n"
                  "mtu:                 1400\n"
                  "tx queue length:     500\n"
                  "alias:               the uplink\n"
                  "arp type:            1\n"
                  "queue discipline:    noqueue\n"
                  "promiscuity count:   1\n"
                  "tx queue amount:     " +
                  queues("numtxqueues ") +
                  "\n"
                  "rx queue amount:     " +
                  queues("numrxqueues ") +
                  "\n"
                  "mode dormant:        1\n"
                  "is active:           1\n"
                  "ip address count:    1\n"
                  "ip address:          192.168.1.10/24\n",
              link.toString());
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
                  "set e0 address 02:00:00:00:00:07", "set e0 down", "set e0 name f0",
                  "set f0 up mtu 1200"}) {
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
