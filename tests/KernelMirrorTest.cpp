// The caches stay true to a real kernel where its notifications alone do not keep them so.
#include "Support.h"

#include "Faults.h"
#include "MyLock.h"

#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <memory>
#include <net/if.h>
#include <netlink/attr.h>
#include <netlink/msg.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace netlink_route {
namespace {

using namespace test;
using namespace testing;
using namespace std::chrono_literals;

class Mirror : public KernelTest {
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

std::string batch(int count, std::string const& lines)
{
    return "(for i in $(seq " + std::to_string(count) + "); do " + lines + "; done) | ip -batch -; ";
}

// Static and multipath routes that depend on v0 and its address, and one that w0 sends from it.
void addRoutes()
{
    run("ip route add 10.2.0.0/16 via 10.0.0.2; "
        "ip route add 10.3.0.0/16 nexthop dev v0 nexthop via 10.0.0.3; "
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

// Who makes a change waits for what follows from it, however long that takes.
TEST_F(Mirror, OwnChangesWaitForReadings)
{
    run("ip route add 10.4.0.0/16 dev w0");
    CacheManager manager;
    test::duringReading([] {
        auto const end = std::chrono::steady_clock::now() + 300ms;
        while (std::chrono::steady_clock::now() < end) { // works
        }
    });
    EXPECT_TRUE(manager.remove(ipv4("10.1.0.1/24"), static_cast<int>(if_nametoindex("w0"))));
    EXPECT_FALSE(holds(manager, "10.4.0.0/16"));
    MyLock const lock("test");                        // the event thread cannot go on
    EXPECT_TRUE(manager.add(ipv4("10.1.0.1/24"), 1)); // and this thread does not wait for ever
}

// Of those that are equal to libnl the kernel's first, else the first in the cache: table, metric and next hops play no
// part.
TEST_F(Mirror, OfRoutesToOneDestinationTheFirstIsShown)
{
    std::string const to = "10.6.0.0/16";
    run("ip route append " + to + " via 10.0.0.3; ip route append " + to + " via 10.1.0.2; " +
        "ip route add default via 10.0.0.3 metric 300; " +
        batch(100, "echo route add 10.7.$i.0/24 dev w0")); // for the sort of a reading
    CacheManager const manager;
    run("ip route add default via 10.0.0.2 metric 100; ip route add default via 10.0.0.4 table 7");
    run("ip route prepend " + to + " via 10.0.0.2");
    EXPECT_TRUE(eventually([&] { return gatewayOf(manager, to) == "10.0.0.2/32"; }));
    EXPECT_EQ("10.0.0.3/32", gatewayOf(manager, "default"));
    EXPECT_EQ("10.0.0.3/32", gatewayOf(manager, "0.0.0.0/0"));
    EXPECT_FALSE(holds(manager, "0.0.0.0/8"));
    run("ip route delete " + to + " via 10.0.0.2");
    EXPECT_TRUE(eventually([&] { return gatewayOf(manager, to) == "10.0.0.3/32"; }));
    run("ip link set v0 down"); // silently
    EXPECT_TRUE(eventually([&] { return gatewayOf(manager, to) == "10.1.0.2/32"; }));
    EXPECT_TRUE(mirrorsKernel(manager));
}

TEST_F(Mirror, NexthopObjectsTakeTheirRoutesAway)
{
    if (output("ip nexthop show 2>/dev/null && echo yes || true") != "yes\n") {
        GTEST_SKIP() << "this kernel has no nexthop objects";
    }
    auto const addRoute = [] { run("ip nexthop add id 1 via 10.0.0.2 dev v0; ip route add 10.6.0.0/16 nhid 1"); };
    CacheManager manager;
    for (int const round : {0, 1, 2}) { // at first routes have no hops, at last the object itself is deleted
        run("sysctl -qw net.ipv4.nexthop_compat_mode=" + std::string(round == 0 ? "0" : "1"));
        run("ip link set v1 up");
        ASSERT_TRUE(eventually([] { return output("ip link show v0").find("LOWER_UP") != std::string::npos; }));
        addRoute();
        ASSERT_TRUE(eventually([&] { return holds(manager, "10.6.0.0/16"); }));
        run(round == 2 ? "ip nexthop delete id 1" : "ip link set v1 down"); // v0's carrier is lost
        EXPECT_TRUE(eventually([&] { return !holds(manager, "10.6.0.0/16"); }));
    }
    addRoute();
    run("ip nexthop add id 2 via 10.0.0.2 dev v0; ip route append 10.6.0.0/16 nhid 2; ip route delete 10.6.0.0/16");
    EXPECT_TRUE(manager.add(ipv4("10.7.0.1/24"), 1)); // waits until the removal, of one of two, is applied
    EXPECT_TRUE(mirrorsKernel(manager));
    EXPECT_TRUE(holds(manager, "10.6.0.0/16"));
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
    test::takeRequests();
    test::notify(RTNLGRP_LINK, linkMessage(AF_UNSPEC, "v0", IFLA_WIRELESS));
    test::notify(RTNLGRP_LINK, linkMessage(AF_INET6, "v0", IFLA_PAD));
    test::notify(RTNLGRP_LINK, linkMessage(AF_BRIDGE, "br0", IFLA_PAD));
    run("bridge vlan add dev br0 vid 10 self 2>/dev/null; ip link set v1 mtu 1300");
    EXPECT_TRUE(eventually([&] { return manager.getInterface("v1").getMtu() == 1300; }));
    EXPECT_TRUE(mirrorsKernel(manager, 0s));
    EXPECT_EQ("", test::takeRequests());
}

// Though libnl puts it behind the other one, and tells nobody.
TEST_F(Mirror, RenewedAddressStaysTheFirst)
{
    CacheManager const manager;
    run("ip address add 10.5.0.1/24 dev v0");
    run("ip address change 10.0.0.1/24 dev v0 valid_lft 900 preferred_lft 900; ip link set v1 mtu 1300");
    EXPECT_TRUE(mirrorsKernel(manager));
    EXPECT_EQ("10.0.0.1/24", manager.getInterface("v0").getIps().at(0).getAddress());
}

// libnl begins again, without clearing its cache.
TEST_F(Mirror, FillingThatWasInterruptedLeavesNoAddressTwice)
{
    test::interruptedDump = RTM_NEWADDR;
    CacheManager const manager;
    EXPECT_EQ(0, test::interruptedDump);
    run("ip address delete 10.0.0.1/24 dev v0");
    EXPECT_TRUE(mirrorsKernel(manager));
}

TEST_F(Mirror, RouteThatLibnlCannotReadHidesNoOther)
{
    std::string const unknown = " 10.7.0.0/24 encap ip id 7 dst 10.0.0.9 dev v0 2>/dev/null || true; ";
    run("ip route add" + unknown + "ip -6 route add 2001:db8::/64 dev v0");
    addRoutes();
    CacheManager const manager;
    EXPECT_TRUE(holds(manager, "10.2.0.0/16") && holds(manager, "10.0.0.0/24"));
    EXPECT_EQ(1U, manager.getInterface("v0").getIps().size()); // their filling came after that of the routes
    test::takeRequests();
    run("ip route delete" + unknown + "ip route add" + unknown + "ip route delete 10.2.0.0/16");
    EXPECT_TRUE(eventually([&] { return !holds(manager, "10.2.0.0/16"); }));
    EXPECT_THAT(test::takeRequests(), MatchesRegex("(wRwn)*")); // all routes, and nothing else
}

TEST_F(Mirror, QueueingDisciplineIsFollowed)
{
    CacheManager const manager;
    auto const becomes = [&](std::string const& link, std::string const& discipline) {
        return eventually([&] { return manager.getInterface(link).getQueueingDiscipline() == discipline; });
    };
    run("tc qdisc replace dev v0 root pfifo_fast");
    EXPECT_TRUE(becomes("v0", "pfifo_fast"));
    {
        MyLock const lock("test"); // more than the socket of these notifications can hold
        run("for i in $(seq 300); do echo qdisc replace dev v0 root pfifo; echo qdisc replace dev v0 root bfifo; done |"
            " tc -batch -; tc qdisc replace dev v1 root bfifo");
    }
    EXPECT_TRUE(becomes("v1", "bfifo"));
}

TEST_F(Mirror, StartReadsEachTableOnceAndSleeps)
{
    ASSERT_TRUE(eventually([] { return output("ip link | grep 'state UP' | wc -l") == "4\n"; }, 5s));
    auto const descriptors = test::openDescriptors();
    test::takeRequests();
    {
        CacheManager const manager;
        test::TraceLevel const scope(9);
        EXPECT_FALSE(eventually([] { return !test::takeLogOfOthers().empty(); }, 200ms));
    }
    EXPECT_EQ("wLRAwRwn", test::takeRequests()); // a trial; libnl fills three caches; the routes are read
    EXPECT_EQ(descriptors, test::openDescriptors());
}

struct Change {
    char const* name;
    std::string before;
    std::string commands;
    char const* requests; // that they cause
};

std::string const addLink = "echo link add a$i type veth peer name b$i; echo link set b$i up; echo link set a$i up; "
                            "echo route add 10.8.$i.0/24 dev a$i";
std::string const downLink = "echo link set a$i down";

void PrintTo(Change const& change, std::ostream* out) { *out << change.name; }

class Reading : public Mirror, public WithParamInterface<Change> {};

// And no poll has a timeout: tables as small as these are read at once.
TEST_P(Reading, IsOfWhatAChangeMayHaveDropped)
{
    addRoutes();
    run(GetParam().before + "\n:");
    CacheManager const manager;
    EXPECT_TRUE(mirrorsKernel(manager));
    test::takeRequests();
    test::timedPolls = 0;
    {
        MyLock const lock("test"); // all can be applied in one pass
        run(GetParam().commands);
    }
    std::string sent;
    eventually([&] { return !(sent += test::takeRequests()).empty(); }, 100ms); // a query would end the pass
    EXPECT_TRUE(mirrorsKernel(manager));
    EXPECT_GE(20, test::timedPolls); // valgrind makes readings expensive
    EXPECT_THAT(sent + test::takeRequests(), MatchesRegex(GetParam().requests));
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Mirror, Reading, Values(
    Change{"NewLinks", "", batch(20, "echo link add a$i type veth peer name b$i"), ""},
    Change{"NewLinkWithRoute", "", "ip link add n0 type veth peer name n1; ip link set n0 up mtu 1300; ip address add "
           "10.7.0.1/24 dev n0; ip address add 10.7.1.1/24 dev n0; ip link set n1 up alias x; ip route add 10.8.0.0/16 dev n0", ""},
    Change{"RemovedRoutes", batch(50, "echo route add 10.8.$i.0/24 dev v0"), batch(50, "echo route delete 10.8.$i.0/24"), ""},
    Change{"RenewedAddress", "", "ip address change 10.0.0.1/24 dev v0 valid_lft 900 preferred_lft 900", ""},
    Change{"Address", "", "ip address delete 10.0.0.1/24 dev v0", "[wr]*"},
    Change{"LinksDown", "", "ip link set v0 down; ip link set w1 down; ip link set v1 down", "w[wr]*r[wr]*"},
    Change{"RemovedLink", "", "ip link delete w0", "w[wr]*"},
    Change{"QueueingDiscipline", "", "tc qdisc replace dev v0 root pfifo", "l+"},
    Change{"SixteenLinksDown", batch(16, addLink), batch(16, downLink), "w[wr]*r[wr]*"},
    // More than are noted one by one.
    Change{"ManyLinksDown", batch(20, addLink), batch(20, downLink), "w[wrRn]*"},
    Change{"RoutesOfManyLinks", batch(20, addLink) + "ip address add 10.0.0.9/32 dev v0; " +
           batch(20, "echo route replace 10.8.$i.0/24 dev a$i src 10.0.0.9"), "ip address delete 10.0.0.9/32 dev v0", "[wrRn]*"}),
    [](auto const& test) { return test.param.name; });
// clang-format on

// The address goes and comes, and nothing else is in question. A link is asked for only when the request leaves it down.
TEST_F(Mirror, UpdatesReadNothing)
{
    CacheManager manager;
    EXPECT_TRUE(mirrorsKernel(manager));
    test::takeRequests();
    Interface wanted("v0");
    wanted.setUp();
    for (int i = 0; i < 200; ++i) {
        wanted.addIp(ipv4("10.7." + std::to_string(i % 2) + ".1/24"), true);
        EXPECT_TRUE(manager.update(wanted, 5));
    }
    EXPECT_THAT(test::takeRequests(), MatchesRegex("w*"));
    wanted.setDown();
    EXPECT_TRUE(manager.update(wanted, 5));
    EXPECT_THAT(test::takeRequests(), HasSubstr("l"));
}

TEST_F(Mirror, ReadingThatFailsIsRepeated)
{
    CacheManager const manager; // whose end it holds up no more than the reading
    for (bool const isSent : {false, true}) {
        addRoutes();
        EXPECT_TRUE(mirrorsKernel(manager));
        {
            MyLock const lock("test"); // until the request can fail
            run("ip link set v0 down; ip link set v0 up");
            test::takeRequests();
            test::failingRequests = isSent ? 0 : 2;
            test::interruptedDump = isSent ? RTM_NEWROUTE : 0;
        }
        EXPECT_TRUE(mirrorsKernel(manager));
        EXPECT_TRUE(eventually([&, sent = std::string()]() mutable {
            return (sent += test::takeRequests()).find(isSent ? "R" : "w") != std::string::npos;
        }));
    }
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
    std::string const storm = batch(300, "echo link set v0 mtu $((1300 + i))");
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
    test::takeRequests();
    test::cancelled = false;
    test::duringReading([] { eventually([] { return test::cancelled.load(); }, 5s); });
    {
        MyLock const lock("test"); // until it has overrun
        run(storm);
    }
    EXPECT_TRUE(eventually([] { return test::takeRequests() == "L"; }));
    manager.reset();
    EXPECT_EQ("", test::takeRequests()); // neither addresses nor routes
}

TEST_F(Mirror, RecoversFromOverrunsWhileOthersAsk)
{
    CacheManager manager;
    test::Meanwhile const asking([&] { manager.getInterface("v1"); });
    shrinkReceiveBuffers();
    test::TraceLevel const scope(3);
    auto const makeVlan = [](int id) { // not every kernel can
        return "(ip link delete v0.5; ip link add link v0 name v0.5 index 500 type vlan id " + std::to_string(id) +
               ") 2>/dev/null || true";
    };
    // To libnl's comparison the second VLAN is the first.
    for (std::string const& storm :
         {batch(100, addLink) + makeVlan(6), batch(100, "echo link delete a$i") + makeVlan(7)}) {
        {
            MyLock const lock("test"); // the event thread cannot keep up
            run(storm);
            test::failingRequests = 2; // of the readings of links and addresses
        }
        EXPECT_TRUE(answersAsNew(manager, 20s));
    }
    auto const lines = test::takeLogOfOthers();
    EXPECT_FALSE(lines.empty());
    EXPECT_THAT(lines, Each("3 [ERROR] CacheManager.cpp:N (cacheThread) - Out of memory"));
}

// Queries that wait end the pass, and go before the next one. Twice, since the event socket has to come back.
TEST_F(Mirror, FloodOfRoutesKeepsNoQueryWaiting)
{
    CacheManager const manager;
    while (eventually([] { return !test::takeRequests().empty(); }, 200ms)) { // a reading is no pass
    }
    int served = 0;
    for (char const* const net : {"20.", "21."}) {
        std::vector<std::thread> queries;
        test::duringPass([&] {
            int const before = test::replacements;
            for (int i = 0; i < 4; ++i) {
                queries.emplace_back([&] { manager.getIps(1); });
            }
            EXPECT_TRUE(eventually([&] { return test::replacements > before; }, 10s));
        });
        test::TraceLevel const scope(9);
        {
            MyLock const lock("test"); // hundreds are queued
            run(batch(500, "echo route add " + std::string(net) + "$((i / 250)).$((i % 250)).0/24 via 10.0.0.2"));
        }
        EXPECT_TRUE(eventually([&] { return holds(manager, net + std::string("2.0.0/24")); }, 60s));
        for (std::thread& query : queries) {
            query.join();
        }
        std::string order; // c: a change, u: the end of a pass, q: a query, p: a pass
        for (std::string const& line : test::takeLogOfOthers()) {
            auto const is = [&](char const* text) { return line.find(text) != std::string::npos; };
            order += is("(changeCb)") ? "c" : is("unlocking mutex because nl_") ? "u" : "";
            order += is("locked because CacheManager::getIps") ? "q" : is("locked because nl_") ? "p" : "";
        }
        EXPECT_THAT(order, MatchesRegex("u?p?c{0,32}u.*")); // in a pass
        served += order.find("uq") != std::string::npos ? 1 : 0;
    }
    EXPECT_LT(0, served);
}

TEST_F(Mirror, ReceiveBufferHoldsAFlood)
{
    bool const isRoot = access("/proc/sys/vm/swappiness", W_OK) == 0; // of the machine
    for (bool const refused : {false, true}) {                        // then net.core.rmem_max is the limit
        test::refuseLargeBuffers = refused;
        CacheManager const manager;
        test::TraceLevel const scope(3);
        std::string const net = refused ? "20." : "21.";
        int const count = refused || !isRoot ? 250 : 5000;
        {
            MyLock const lock("test");
            run(batch(count, "echo route add " + net + "$((i / 250)).$((i % 250)).0/24 dev v0"));
        }
        EXPECT_TRUE(eventually([&] { return holds(manager, net + std::to_string(count / 250) + ".0.0/24"); }, 20s));
        EXPECT_THAT(test::takeLogOfOthers(), IsEmpty());
    }
    test::refuseLargeBuffers = false;
}

} // namespace
} // namespace netlink_route
