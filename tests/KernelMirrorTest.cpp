// The caches stay true to a real kernel where its notifications alone do not keep them so.
#include "Support.h"

#include "MyLock.h"

#include <atomic>
#include <sys/socket.h>
#include <thread>

namespace netlink_route {
namespace {

using test::eventually;
using test::ipv4;
using test::mirrorsKernel;
using test::run;
using testing::Each;

class Mirror : public test::KernelTest {
protected:
    void SetUp() override
    {
        KernelTest::SetUp();
        run("ip link add w0 type veth peer name w1; for i in v0 v1 w0 w1; do ip link set $i up; done");
        run("ip address add 10.0.0.1/24 dev v0; ip address add 10.1.0.1/24 dev w0");
    }
    void TearDown() override { EXPECT_EQ(0, test::unlockedChangeCount()); }
};

// Static, connected and multipath routes that depend on v0 and its address.
const std::vector<std::string> routes{"10.2.0.0/16", "10.0.0.0/24", "10.3.0.0/16"};

void addRoutes()
{
    run("ip route add 10.2.0.0/16 via 10.0.0.2; "
        "ip route add 10.3.0.0/16 nexthop via 10.0.0.2 nexthop via 10.0.0.3");
}

bool holds(CacheManager const& manager, std::string const& destination)
{
    return manager.getRoute(ipv4(destination)).isAddedToKernel();
}

TEST_F(Mirror, RoutesDroppedSilentlyLeaveWithinASecond)
{
    const CacheManager manager;
    const std::string address = "address add 10.0.0.1/24 dev v0\n";
    const std::vector<std::pair<std::string, std::string>> removals{
        {"link set v0 down\n", "link set v0 up\n"},
        {"address delete 10.0.0.1/24 dev v0\n", address},
        {"link delete v0\n", "link add v0 type veth peer name v1\nlink set v0 up\nlink set v1 up\n" + address}};
    for (const auto& [removal, restoration] : removals) {
        addRoutes();
        ASSERT_TRUE(eventually([&] { return holds(manager, routes[0]) && holds(manager, routes[2]); }));
        std::this_thread::sleep_for(std::chrono::milliseconds(700)); // what went before is mended by now
        run("ip " + removal);
        for (std::string const& route : routes) {
            EXPECT_TRUE(eventually([&] { return !holds(manager, route); })) << removal << route;
        }
        EXPECT_TRUE(mirrorsKernel(manager));
        run("printf '" + restoration + "' | ip -batch -");
        addRoutes();
        ASSERT_TRUE(eventually([&] { return holds(manager, routes[0]) && holds(manager, routes[2]); }));
        // Down and up within one pass: the links look as before, and the routes are gone.
        run("printf '" + removal + restoration + "' | ip -batch -");
        EXPECT_TRUE(eventually([&] { return !holds(manager, routes[0]) && !holds(manager, routes[2]); })) << removal;
        EXPECT_TRUE(mirrorsKernel(manager));
    }
}

TEST_F(Mirror, OneOfTwoRoutesToANetworkStays)
{
    run("ip address add 10.0.0.9/24 dev w0"); // libnl holds one of the two connected routes
    const CacheManager manager;
    run("ip address delete 10.0.0.9/24 dev w0");
    EXPECT_TRUE(mirrorsKernel(manager));
    run("ip route append 10.6.0.0/16 via 10.0.0.2; ip route append 10.6.0.0/16 via 10.1.0.2");
    ASSERT_TRUE(
        eventually([&] { return manager.getRoute(ipv4("10.6.0.0/16")).getGateway().getAddress() == "10.1.0.2"; }));
    run("ip link set w0 down");
    EXPECT_TRUE(
        eventually([&] { return manager.getRoute(ipv4("10.6.0.0/16")).getGateway().getAddress() == "10.0.0.2"; }));
}

TEST_F(Mirror, NexthopObjectTakesItsRoutesAway)
{
    if (test::output("ip nexthop add id 1 via 10.0.0.2 dev v0 2>/dev/null && echo yes || true").empty()) {
        GTEST_SKIP() << "this kernel has no nexthop objects";
    }
    run("ip route add 10.6.0.0/16 nhid 1");
    const CacheManager manager;
    EXPECT_TRUE(holds(manager, "10.6.0.0/16"));
    std::this_thread::sleep_for(std::chrono::milliseconds(700)); // what went before is mended by now
    run("ip nexthop delete id 1");
    EXPECT_TRUE(eventually([&] { return !holds(manager, "10.6.0.0/16"); }));
}

TEST_F(Mirror, TablesAreReadRarely)
{
    const int atStart = test::refillCount();
    const CacheManager manager;
    // Three caches are filled, and what came before the thread started is checked once.
    ASSERT_TRUE(eventually([&] { return test::refillCount() == atStart + 4; }));
    const int before = test::refillCount();
    const int lockedBefore = test::lockedRefillCount();
    run("ip link add new type veth peer name wen; ip link set new up mtu 1300; ip address add 10.7.0.1/24 "
        "dev new; "
        "ip link set wen up alias x; ip route add 10.8.0.0/16 dev new; ip link set v0 mtu 1300");
    EXPECT_TRUE(mirrorsKernel(manager));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(before, test::refillCount()); // nothing was removed
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
    while (std::chrono::steady_clock::now() < end) {
        run("ip link set new down; ip link set new up");
    }
    EXPECT_TRUE(mirrorsKernel(manager));
    EXPECT_GT(test::refillCount(), before);
    EXPECT_LE(test::refillCount(), before + 9);
    EXPECT_EQ(lockedBefore, test::lockedRefillCount()); // no query waits for the kernel
}

// Makes every netlink socket of the process overrun at a few messages.
void shrinkReceiveBuffers()
{
    for (int descriptor = 0; descriptor < 1024; ++descriptor) {
        int domain = 0;
        socklen_t size = sizeof domain;
        const int least = 1;
        if (getsockopt(descriptor, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 && domain == AF_NETLINK) {
            setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &least, sizeof least);
        }
    }
}

TEST_F(Mirror, RecoversFromOverrunsWhileOthersAsk)
{
    run("for i in $(seq 0 999); do echo address add 10.20.$((i / 250)).$((i % 250))/32 dev v1; done | ip "
        "-batch -");
    CacheManager manager;
    std::atomic<bool> stop{false};
    std::thread asking([&] {
        while (!stop) {
            manager.getInterface("v1");
            std::this_thread::yield();
        }
    });
    shrinkReceiveBuffers();
    const test::TraceLevel scope(3);
    const std::string loop = "for i in $(seq 100); do ";
    const std::string made = "echo link add a$i type veth peer name b$i; echo address add 10.9.$i.1/24 dev a$i; "
                             "echo link set a$i up; echo route add 10.8.$i.0/24 dev a$i; ";
    for (const std::string& storm : {made, std::string("echo link delete a$i; ")}) {
        {
            const MyLock lock("test"); // the event thread cannot keep up
            run(loop + storm + "done | ip -batch -");
        }
        EXPECT_TRUE(mirrorsKernel(manager, std::chrono::seconds(20)));
    }
    const auto lines = test::takeLogOfOthers();
    EXPECT_FALSE(lines.empty());
    EXPECT_THAT(lines, Each("3 [ERROR] CacheManager.cpp:N (cacheThread) - Out of memory"));
    stop = true;
    asking.join();
    run("ip link set v0 mtu 1300");
    EXPECT_TRUE(mirrorsKernel(manager));
}

TEST_F(Mirror, TakesABurstOfThousandLinksWithoutLoss)
{
    const test::TraceLevel scope(3);
    const CacheManager manager;
    run("for i in $(seq 500); do echo link add a$i type veth peer name b$i; done | ip -batch -");
    EXPECT_TRUE(eventually([&] { return manager.getListOfInterfaces().size() == 1005; }));
    EXPECT_TRUE(manager.getInterface("b500").isAddedToKernel());
    EXPECT_THAT(test::takeLogOfOthers(), testing::IsEmpty());
}

} // namespace
} // namespace netlink_route
