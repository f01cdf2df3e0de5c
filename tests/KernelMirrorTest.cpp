// The caches stay true to a real kernel where its notifications alone do not keep them so.
#include "Support.h"

#include "Faults.h"
#include "MyLock.h"

#include <algorithm>
#include <arpa/inet.h>
#include <fstream>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <memory>
#include <net/if.h>
#include <netlink/attr.h>
#include <netlink/msg.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace netlink_route {
namespace {

using test::eventually;
using test::ipv4;
using test::mirrorsKernel;
using test::run;
using testing::Each;
using testing::HasSubstr;
using testing::Not;
using namespace std::chrono_literals;

class Mirror : public test::KernelTest {
protected:
    void SetUp() override
    {
        KernelTest::SetUp();
        run("ip link add w0 type veth peer name w1; for i in v0 v1 w0 w1; do ip link set $i up; done");
        run("ip address add 10.0.0.1/24 dev v0; ip address add 10.1.0.1/24 dev w0");
        test::unlockedChanges = 0;
    }
    void TearDown() override { EXPECT_EQ(0, test::unlockedChanges); }
};

// Static and multipath routes that depend on v0 and its address, and one that w0 sends from it.
void addRoutes()
{
    run("ip route add 10.2.0.0/16 via 10.0.0.2; "
        "ip route add 10.3.0.0/16 nexthop via 10.0.0.2 nexthop via 10.0.0.3; "
        "ip route replace 10.4.0.0/16 dev w0 src 10.0.0.1");
}

bool holds(CacheManager const& manager, std::string const& destination)
{
    return manager.getRoute(ipv4(destination)).isAddedToKernel();
}

std::string gatewayOf(CacheManager const& manager, std::string const& destination)
{
    return manager.getRoute(ipv4(destination)).getGateway().getAddress();
}

bool hasNexthopObjects() { return test::output("ip nexthop show 2>/dev/null && echo yes || true") == "yes\n"; }

TEST_F(Mirror, RoutesDroppedSilentlyLeaveWithinASecond)
{
    CacheManager const manager;
    std::string const address = "address add 10.0.0.1/24 dev v0\n";
    std::vector<std::pair<std::string, std::string>> const removals{
        {"link set v0 down\n", "link set v0 up\n"},
        {"address delete 10.0.0.1/24 dev v0\n", address},
        {"link delete v0\n", "link add v0 type veth peer name v1\nlink set v0 up\nlink set v1 up\n" + address}};
    for (auto const& [removal, restoration] : removals) {
        addRoutes();
        ASSERT_TRUE(mirrorsKernel(manager));
        run("ip " + removal);
        EXPECT_TRUE(mirrorsKernel(manager)) << removal;
        run("printf '" + restoration + "' | ip -batch -");
        addRoutes();
        ASSERT_TRUE(mirrorsKernel(manager));
        // Down and up within one pass: the links look as before, and the routes are gone.
        run("printf '" + removal + restoration + "' | ip -batch -");
        EXPECT_TRUE(mirrorsKernel(manager)) << removal;
    }
}

// Who makes a change waits for what follows from it. And the kernel drops the routes after it has notified the link.
TEST_F(Mirror, OwnChangesWaitForReadingsAndReadingsForTheKernel)
{
    run("for i in $(seq 0 999); do echo route add 20.$((i / 250)).$((i % 250)).0/24 dev v0; done | ip -batch -; "
        "ip route add 10.4.0.0/16 dev w0");
    CacheManager manager;
    EXPECT_TRUE(mirrorsKernel(manager));
    test::duringReading([] { std::this_thread::sleep_for(20ms); });
    EXPECT_TRUE(manager.remove(ipv4("10.1.0.1/24"), static_cast<int>(if_nametoindex("w0"))));
    EXPECT_FALSE(holds(manager, "10.4.0.0/16"));
    {
        MyLock const lock("test");                        // the event thread cannot go on
        EXPECT_TRUE(manager.add(ipv4("10.1.0.1/24"), 1)); // and this thread does not wait for ever
    }
    EXPECT_TRUE(mirrorsKernel(manager)); // meanwhile the next reading becomes due
    run("ip link set v0 down");
    EXPECT_TRUE(mirrorsKernel(manager));
}

// The kernel finds the next piece of a dump by counting, so it skips as many routes as went meanwhile.
TEST_F(Mirror, RoutesThatADumpSkippedStay)
{
    auto const changeEach = [](std::string const& action, unsigned int first, unsigned int last) {
        run("for i in $(seq " + std::to_string(first) + " " + std::to_string(last) + "); do echo route " + action +
            " 10.9.0.0/16 dev w0 metric $i; done | ip -batch -");
    };
    for (std::string const cause : {"ip address delete 10.1.0.2/24 dev w0", // the routes of w0 are read, and all
                                    "ip route replace 10.2.0.0/16 dev v0; ip route replace 10.2.0.0/16 dev w0"}) {
        run("ip address add 10.1.0.2/24 dev w0");
        changeEach("add", 1, 400); // in two pieces
        CacheManager const manager;
        test::duringReading([&] { changeEach("delete", 1, 20); });
        run(cause);
        for (unsigned int first = 21; first <= 400; first += 10) {
            EXPECT_TRUE(mirrorsKernel(manager));
            changeEach("delete", first, first + 9);
        }
    }
}

TEST_F(Mirror, RoutesOfManyLinksLeaveAtOnce)
{
    auto const eachOfTwenty = [](std::string const& lines) { return "for i in $(seq 20); do " + lines + "; done"; };
    auto const inOnePass = [](std::string const& lines) {
        MyLock const lock("test");
        run("(" + lines + ") | ip -batch -");
    };
    inOnePass(eachOfTwenty("echo link add a$i type veth peer name b$i; echo link set a$i up; echo link set b$i up"));
    CacheManager manager;
    // Those that an address took along are there again, without a hop, or over many links.
    std::string const renewed = "echo address delete 10.0.0.1/24 dev v0; echo address add 10.0.0.1/24 dev v0; ";
    inOnePass(renewed + "echo route add blackhole 10.9.0.0/16 src 10.0.0.1");
    EXPECT_TRUE(manager.add(ipv4("10.7.0.1/24"), 1)); // waits until they have been read
    EXPECT_TRUE(mirrorsKernel(manager));
    inOnePass(renewed + eachOfTwenty("echo route add 10.8.$i.0/24 dev a$i src 10.0.0.1"));
    EXPECT_TRUE(manager.remove(ipv4("10.7.0.1/24"), 1));
    EXPECT_TRUE(mirrorsKernel(manager));
    test::hideRouteRemovals = true; // as before Linux 6.1
    run("ip address delete 10.0.0.1/24 dev v0");
    EXPECT_TRUE(mirrorsKernel(manager));
    test::hideRouteRemovals = false;
    inOnePass(eachOfTwenty("echo route add 10.8.$i.0/24 dev a$i") + "; " + eachOfTwenty("echo link set a$i down"));
    EXPECT_TRUE(mirrorsKernel(manager));
}

// libnl holds one of several routes that differ in their next hops alone, and none when one of them was removed.
TEST_F(Mirror, OfEqualRoutesTheKernelsFirstIsShown)
{
    std::string const to = "10.6.0.0/16";
    run("ip address add 10.0.0.9/24 dev w0; ip route append " + to + " via 10.0.0.3");
    CacheManager const manager;
    run("ip route append " + to + " via 10.1.0.2"); // behind
    EXPECT_TRUE(mirrorsKernel(manager));
    EXPECT_EQ("10.0.0.3/32", gatewayOf(manager, to));
    run("ip route prepend " + to + " via 10.0.0.2"); // in front
    EXPECT_TRUE(eventually([&] { return gatewayOf(manager, to) == "10.0.0.2/32"; }));
    run("ip route delete " + to + " via 10.0.0.2");
    EXPECT_TRUE(eventually([&] { return gatewayOf(manager, to) == "10.0.0.3/32"; }));
    run("ip address delete 10.0.0.9/24 dev w0"); // one of two connected routes
    EXPECT_TRUE(mirrorsKernel(manager));
    run("ip link set v0 down"); // silently
    EXPECT_TRUE(eventually([&] { return gatewayOf(manager, to) == "10.1.0.2/32"; }));
    EXPECT_TRUE(mirrorsKernel(manager));
}

TEST_F(Mirror, NexthopObjectsTakeTheirRoutesAway)
{
    if (!hasNexthopObjects()) {
        GTEST_SKIP() << "this kernel has no nexthop objects";
    }
    test::OtherNamespace const other;
    run("ip link set v1 netns " + other.path());
    other.run("ip link set v1 up");
    auto const addRoute = [] { run("ip nexthop add id 1 via 10.0.0.2 dev v0; ip route add 10.6.0.0/16 nhid 1"); };
    ASSERT_TRUE(eventually([] { return test::output("ip link show v0").find("LOWER_UP") != std::string::npos; }));
    addRoute();
    CacheManager manager;
    ASSERT_TRUE(holds(manager, "10.6.0.0/16"));
    other.run("ip link set v1 down"); // carrier lost
    EXPECT_TRUE(eventually([&] { return !holds(manager, "10.6.0.0/16"); }));
    other.run("ip link set v1 up");
    ASSERT_TRUE(eventually([] { return test::output("ip link show v0").find("LOWER_UP") != std::string::npos; }));
    addRoute();
    ASSERT_TRUE(eventually([&] { return holds(manager, "10.6.0.0/16"); }));
    run("ip nexthop delete id 1");
    EXPECT_TRUE(eventually([&] { return !holds(manager, "10.6.0.0/16"); }));
    addRoute();
    run("ip nexthop add id 2 via 10.0.0.2 dev v0; ip route append 10.6.0.0/16 nhid 2; ip route delete 10.6.0.0/16");
    EXPECT_TRUE(manager.add(ipv4("10.7.0.1/24"), 1)); // waits until the removal, of one of two, is applied
    EXPECT_TRUE(mirrorsKernel(manager));
    EXPECT_TRUE(holds(manager, "10.6.0.0/16"));
}

void sendDatagram(char const* address, std::size_t bytes)
{
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(9);
    inet_pton(AF_INET, address, &to.sin_addr);
    int const descriptor = socket(AF_INET, SOCK_DGRAM, 0);
    sendto(descriptor, std::string(bytes, 'x').data(), bytes, 0, reinterpret_cast<sockaddr const*>(&to), sizeof to);
    close(descriptor);
}

TEST_F(Mirror, RouteExceptionsAreNoRoutes)
{
    test::OtherNamespace const router;
    run("ip link set v1 netns " + router.path() + "; ip route add 10.9.0.0/16 via 10.0.0.2");
    router.run("ip address add 10.0.0.2/24 dev v1; ip link set v1 up; ip link add x0 mtu 1300 type veth peer name x1; "
               "ip link set x0 up; ip link set x1 up; ip address add 10.9.0.1/16 dev x0; "
               "echo 1 > /proc/sys/net/ipv4/ip_forward");
    ASSERT_TRUE(eventually(
        [] {
            sendDatagram("10.9.0.9", 1400); // which the router would have to fragment
            return test::output("ip route show cache").find("mtu 1300") != std::string::npos;
        },
        5s));
    CacheManager const manager;
    EXPECT_FALSE(holds(manager, "10.9.0.9/32"));
    EXPECT_TRUE(mirrorsKernel(manager));
    run("ip route replace 10.2.0.0/16 via 10.0.0.2; ip route replace 10.2.0.0/16 via 10.0.0.3"); // has all routes read
    EXPECT_TRUE(eventually([&] { return gatewayOf(manager, "10.2.0.0/16") == "10.0.0.3/32"; }));
    EXPECT_TRUE(mirrorsKernel(manager));
    EXPECT_FALSE(holds(manager, "10.9.0.9/32"));
}

// A message about a link, with its name and one attribute more.
std::vector<char> linkMessage(unsigned char family, std::string const& name, int attribute)
{
    ifinfomsg info{};
    info.ifi_family = family;
    info.ifi_index = static_cast<int>(if_nametoindex(name.c_str()));
    std::unique_ptr<nl_msg, decltype(&nlmsg_free)> const message(nlmsg_alloc_simple(RTM_NEWLINK, 0), nlmsg_free);
    EXPECT_EQ(0, nlmsg_append(message.get(), &info, sizeof info, NLMSG_ALIGNTO));
    EXPECT_EQ(0, nla_put_string(message.get(), IFLA_IFNAME, name.c_str()));
    EXPECT_EQ(0, nla_put_u32(message.get(), attribute, 0));
    char const* const bytes = reinterpret_cast<char const*>(nlmsg_hdr(message.get()));
    return {bytes, bytes + nlmsg_hdr(message.get())->nlmsg_len};
}

TEST_F(Mirror, PartialLinkMessagesChangeNothing)
{
    run("ip link add br0 type bridge; ip link set br0 up");
    CacheManager const manager;
    EXPECT_TRUE(mirrorsKernel(manager));
    int const read = test::tablesRead;
    test::notifyManager(linkMessage(AF_UNSPEC, "v0", IFLA_WIRELESS));
    test::notifyManager(linkMessage(AF_INET6, "v0", IFLA_PAD));
    test::notifyManager(linkMessage(AF_BRIDGE, "br0", IFLA_PAD));
    run("bridge vlan add dev br0 vid 10 self 2>/dev/null; ip link set v1 mtu 1300");
    EXPECT_TRUE(eventually([&] { return manager.getInterface("v1").getMtu() == 1300; }));
    EXPECT_TRUE(mirrorsKernel(manager, 0s));
    EXPECT_EQ(read, test::tablesRead);
}

TEST_F(Mirror, FirstAddressStaysTheFirst)
{
    CacheManager const manager;
    int const index = static_cast<int>(if_nametoindex("v0"));
    auto const first = [&] { return manager.getIps(index).at(0).getAddress(); };
    std::this_thread::sleep_for(20ms); // the kernel counts in hundredths of a second
    run("ip address add 10.0.0.2/24 dev v0 valid_lft 1000 preferred_lft 1000");
    std::this_thread::sleep_for(20ms);
    run("ip address add 10.5.0.1/24 dev v0; sysctl -qw net.ipv4.conf.all.promote_secondaries=1");
    test::beforeReading([] { run("ip address change 10.0.0.1/24 dev v0 valid_lft 800 preferred_lft 800"); });
    run("ip address change 10.0.0.1/24 dev v0 valid_lft 900 preferred_lft 900");
    EXPECT_TRUE(eventually(
        [] { return !test::output("ip address show v0 | grep -E 'valid_lft (800|79.)sec' || true").empty(); }));
    EXPECT_TRUE(mirrorsKernel(manager));
    EXPECT_EQ("10.0.0.1/24", first()); // though libnl puts it behind the other one, and tells nobody
    run("ip address add 10.4.0.1/24 dev v0; ip route add 10.9.0.0/16 dev w0 src 10.4.0.1");
    EXPECT_TRUE(eventually([&] { return holds(manager, "10.9.0.0/16"); }));
    test::hideRouteRemovals = true;                                           // as before Linux 6.1
    test::beforeReading([] { run("ip address delete 10.4.0.1/24 dev v0"); }); // which no callback tells then
    run("ip address change 10.0.0.1/24 dev v0 valid_lft 900 preferred_lft 900");
    EXPECT_TRUE(eventually([&] { return !holds(manager, "10.9.0.0/16"); }));
    test::hideRouteRemovals = false;
    run("ip address delete 10.0.0.1/24 dev v0");                       // the second one is promoted, and notified again
    EXPECT_TRUE(eventually([&] { return first() == "10.5.0.1/24"; })); // which is put behind the other primary one
    EXPECT_TRUE(mirrorsKernel(manager));
    run("printf 'address add 10.7.0.1/24 dev w0\naddress add 10.8.0.1/24 dev w0\n"
        "address replace 10.7.0.1/24 dev w0 valid_lft 900 preferred_lft 900\n' | ip -batch -; ip address delete "
        "10.1.0.1/24 dev w0");
    EXPECT_TRUE(eventually([&] { return manager.getInterface("w0").getIps().at(0).getAddress() == "10.7.0.1/24"; }));
}

TEST_F(Mirror, FillingThatWasInterruptedLeavesNoAddressTwice)
{
    test::fillTwice = true;
    auto const manager = std::make_unique<CacheManager>();
    test::fillTwice = false;
    EXPECT_TRUE(mirrorsKernel(*manager));
    run("ip address delete 10.0.0.1/24 dev v0");
    EXPECT_TRUE(mirrorsKernel(*manager));
}

TEST_F(Mirror, RouteThatLibnlCannotReadHidesNoOther)
{
    run("ip route add 10.7.0.0/24 encap ip id 7 dst 10.0.0.9 dev v0 2>/dev/null || true; ip -6 route add 2001:db8::/64 "
        "dev v0");
    addRoutes();
    CacheManager const manager;
    EXPECT_TRUE(holds(manager, "10.2.0.0/16") && holds(manager, "10.0.0.0/24"));
    EXPECT_EQ(1U, manager.getInterface("v0").getIps().size()); // its filling came after that of the routes
    run("ip route delete 10.2.0.0/16");
    EXPECT_TRUE(eventually([&] { return !holds(manager, "10.2.0.0/16"); }));
}

TEST_F(Mirror, QueueingDisciplineIsFollowed)
{
    CacheManager const manager;
    run("tc qdisc replace dev v0 root pfifo_fast");
    EXPECT_TRUE(eventually([&] { return manager.getInterface("v0").getQueueingDiscipline() == "pfifo_fast"; }));
    run("tc qdisc delete dev v0 root");
    EXPECT_TRUE(eventually([&] { return manager.getInterface("v0").getQueueingDiscipline() == "noqueue"; }));
    {
        MyLock const lock("test"); // more than the socket of these notifications can hold
        run("for i in $(seq 300); do echo qdisc replace dev v0 root pfifo; echo qdisc replace dev v0 root bfifo; done "
            "| "
            "tc -batch -; tc qdisc replace dev v1 root bfifo");
    }
    EXPECT_TRUE(eventually([&] { return manager.getInterface("v1").getQueueingDiscipline() == "bfifo"; }));
}

TEST_F(Mirror, TablesAreReadRarely)
{
    ASSERT_TRUE(eventually([] { return test::output("ip link | grep 'state UP' | wc -l") == "4\n"; }, 5s));
    int const atStart = test::tablesRead;
    auto const descriptors = test::openDescriptors();
    auto manager = std::make_unique<CacheManager>();
    EXPECT_EQ(atStart + 4, test::tablesRead); // libnl fills three caches, and the routes are read
    auto const started = test::openDescriptors();
    test::TraceLevel const scope(9);
    EXPECT_FALSE(
        eventually([] { return !test::takeLogOfOthers().empty(); }, 200ms)); // and sleeps until something happens
    trace::setLevel(0);
    {
        MyLock const lock("test"); // until all can be applied in one pass
        run("for i in $(seq 20); do echo link add a$i type veth peer name b$i; done | ip -batch -");
    }
    EXPECT_TRUE(mirrorsKernel(*manager));
    EXPECT_EQ(atStart + 4, test::tablesRead); // new links have no routes
    auto const readWhile = [&](std::string const& commands) {
        int const before = test::tablesRead;
        run(commands);
        EXPECT_TRUE(mirrorsKernel(*manager));
        return test::tablesRead - before;
    };
    EXPECT_EQ(0, readWhile("ip address change 10.0.0.1/24 dev v0 valid_lft 900 preferred_lft 900"));
    EXPECT_EQ(0, readWhile("ip link add n0 type veth peer name n1; ip link set n0 up mtu 1300; "
                           "ip address add 10.7.0.1/24 dev n0; ip link set n1 up alias x; "
                           "for i in $(seq 50); do echo route add 10.8.$i.0/24 dev n0; done | ip -batch -"));
    EXPECT_EQ(0, readWhile("for i in $(seq 50); do echo route delete 10.8.$i.0/24; done | ip -batch -"));
    EXPECT_EQ(0, readWhile("ip link set v0 down; ip link set v1 down")); // the routes of v0 alone are read
    EXPECT_EQ(0, readWhile("ip link set v0 up; ip route add 10.4.0.0/16 dev w0 src 10.0.0.1"));
    EXPECT_EQ(0, readWhile("ip address delete 10.0.0.1/24 dev v0")); // and with it, silently, that route
    EXPECT_EQ(0, readWhile("ip link delete w0"));
    EXPECT_GE(started + 2, test::openDescriptors()); // for readings, and for the end of a pass
    manager.reset();
    EXPECT_EQ(descriptors, test::openDescriptors());
}

TEST_F(Mirror, RequestThatCannotBeSentIsRepeated)
{
    addRoutes();
    CacheManager const manager; // whose end it holds up no more than the reading
    EXPECT_TRUE(mirrorsKernel(manager));
    {
        MyLock const lock("test"); // until the request can fail
        run("ip link set v0 down");
        test::failingRequests = 2;
    }
    EXPECT_TRUE(mirrorsKernel(manager));
    test::failingRequests = 0;
}

// Makes every socket of the process overrun at a few messages.
void shrinkReceiveBuffers()
{
    for (int descriptor = 0; descriptor < 1024; ++descriptor) {
        int const least = 1;
        setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &least, sizeof least);
    }
}

TEST_F(Mirror, StopsInTheMiddleOfAPassOrAReading)
{
    std::string const storm = "for i in $(seq 300 600); do echo link set v0 mtu 1$i; done | ip -batch -";
    auto manager = std::make_unique<CacheManager>();
    std::thread stopping;
    long const applied = test::objectsApplied;
    test::cancelled = false;
    {
        MyLock const lock("test"); // for which the pass waits
        run(storm);
        stopping = std::thread([&] { manager.reset(); });
        EXPECT_TRUE(eventually([] { return test::cancelled.load(); }));
    }
    stopping.join();
    EXPECT_EQ(applied, test::objectsApplied);
    manager = std::make_unique<CacheManager>();
    shrinkReceiveBuffers();
    int const read = test::tablesRead;
    test::cancelled = false;
    test::duringReading([] { eventually([] { return test::cancelled.load(); }, 5s); });
    {
        MyLock const lock("test"); // until it has overrun
        run(storm);
    }
    EXPECT_TRUE(eventually([&] { return test::tablesRead > read; }));
    manager.reset();
    EXPECT_EQ(read + 1, test::tablesRead); // of three
}

TEST_F(Mirror, RecoversFromOverrunsWhileOthersAsk)
{
    run("for i in $(seq 0 999); do echo address add 10.20.$((i / 250)).$((i % 250))/32 dev v1; done | ip "
        "-batch -");
    CacheManager manager;
    test::Meanwhile const asking([&] {
        manager.getInterface("v1");
        std::this_thread::yield();
    });
    shrinkReceiveBuffers();
    test::TraceLevel const scope(3);
    std::string const loop = "for i in $(seq 100); do ";
    std::string const made = "echo link add a$i type veth peer name b$i; echo address add 10.9.$i.1/24 dev a$i; "
                             "echo link set a$i up; echo route add 10.8.$i.0/24 dev a$i; ";
    for (std::string const& storm : {made, std::string("echo link delete a$i; ")}) {
        {
            MyLock const lock("test"); // the event thread cannot keep up
            run(loop + storm + "done | ip -batch -");
        }
        EXPECT_TRUE(mirrorsKernel(manager, 20s));
    }
    auto const lines = test::takeLogOfOthers();
    EXPECT_FALSE(lines.empty());
    EXPECT_THAT(lines, Each("3 [ERROR] CacheManager.cpp:N (cacheThread) - Out of memory"));
}

TEST_F(Mirror, FloodOfRoutesKeepsNoQueryWaiting)
{
    CacheManager const manager;
    std::thread query;
    test::duringPass([&] {
        std::atomic<long> number{0};
        query = std::thread([&] {
            number = syscall(SYS_gettid);
            manager.getIps(1);
        });
        for (std::string state; state != "S";) { // asleep: it waits for the lock
            std::ifstream("/proc/self/task/" + std::to_string(number) + "/stat") >> state >> state >> state;
        }
    });
    test::TraceLevel const scope(9);
    {
        MyLock const lock("test"); // thousands are queued
        run("for i in $(seq 0 2999); do echo route add 20.$((i / 250)).$((i % 250)).0/24 via 10.0.0.2; done | "
            "ip -batch -");
    }
    EXPECT_TRUE(eventually([&] { return holds(manager, "20.11.249.0/24"); }, 60s));
    query.join();
    auto const lines = test::takeLogOfOthers();
    auto const ends = [](std::string const& line) {
        return line.find("unlocking mutex because nl_") != std::string::npos;
    };
    auto const changes = [](std::string const& line) { return line.find("(changeCb)") != std::string::npos; };
    EXPECT_LE(std::count_if(lines.begin(), std::find_if(lines.begin(), lines.end(), ends), changes), 32); // in a pass
    trace::setLevel(3);
    run("for i in $(seq 500); do echo link add a$i type veth peer name b$i; done | ip -batch -");
    EXPECT_TRUE(eventually([&] { return manager.getListOfInterfaces().size() == 1005; }, 20s));
    EXPECT_THAT(test::takeLogOfOthers(), Each(Not(HasSubstr("[ERROR]")))); // nothing was lost
}

// Table, metric and next hops play no part: the first in the cache is the answer.
TEST_F(Mirror, OfRoutesToOneDestinationTheFirstInTheCacheIsShown)
{
    run("ip route add 10.6.0.0/16 via 10.0.0.3 metric 300");
    CacheManager const manager;
    run("ip route add 10.6.0.0/16 via 10.0.0.2 metric 100; ip route add 10.6.0.0/16 via 10.0.0.4 table 7; "
        "ip route add default via 10.0.0.5 metric 200; ip route add default via 10.0.0.6");
    EXPECT_TRUE(eventually([&] { return gatewayOf(manager, "default") == "10.0.0.5/32"; }));
    EXPECT_TRUE(mirrorsKernel(manager));
    EXPECT_EQ("10.0.0.3/32", gatewayOf(manager, "10.6.0.0/16"));
    EXPECT_EQ("10.0.0.5/32", gatewayOf(manager, "0.0.0.0/0"));
}

} // namespace
} // namespace netlink_route
