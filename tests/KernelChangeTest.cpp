// The operations that change a real kernel, and what they log. `ip` confirms what the library made.
#include "Support.h"

#include "Faults.h"

#include <atomic>
#include <cstdlib>
#include <fcntl.h>
#include <linux/rtnetlink.h>
#include <sched.h>
#include <thread>

namespace netlink_route {
namespace {

using namespace test;
using namespace testing;

constexpr int tries = 5;
std::string const error = "3 [ERROR] CacheManager.cpp:N ";
std::string const inUpdate = error + "(update) - ";
std::string const inRemove = error + "(remove) - ";
std::string const debug1 = "7 [DEBUG1] CacheManager.cpp:N ";

class Links : public KernelTest {};
class Vlans : public KernelTest {};
class Routes : public KernelTest {};

// Whether the kernel of this machine can make links of that kind.
bool hasKind(std::string const& options)
{
    bool const has = output("ip link add probe " + options + " 2>/dev/null && echo yes || true") == "yes\n";
    run("ip link delete probe 2>/dev/null || true");
    return has;
}

Interface linkWithIp(std::string const& name, std::string const& ip)
{
    Interface wanted(name);
    wanted.setUp();
    wanted.addIp(ipv4(ip), true);
    return wanted;
}

// What a failing operation writes at that trace level.
std::vector<std::string> linesOf(int level, std::function<bool()> const& operation)
{
    test::TraceLevel const scope(level);
    EXPECT_FALSE(operation());
    return test::takeLog();
}

TEST_F(Links, AddressesAreAddedAndRemoved)
{
    CacheManager manager;
    int const index = manager.getInterface("v0").getIndex();
    Address const ip = ipv4("192.168.1.10/24");
    std::string const number = std::to_string(index);
    test::TraceLevel const scope(7);
    EXPECT_TRUE(manager.add(ip, index));
    EXPECT_THAT(test::takeLog(),
                ElementsAre(debug1 + "(add) - adding address " + ip.toString() + " to index " + number + " success!"));
    EXPECT_THAT(output("ip address show v0"), HasSubstr("inet 192.168.1.10/24 scope global"));
    EXPECT_THAT(linesOf(7, [&] { return manager.add(ip, index); }),
                ElementsAre(error + "(add) - failure Object exists when adding address " + ip.toString() +
                            " to index " + number + "!"));
    EXPECT_TRUE(manager.remove(ip, index));
    EXPECT_THAT(output("ip address show v0"), Not(HasSubstr("inet 192")));
    EXPECT_THAT(linesOf(7, [&] { return manager.remove(ip, index); }),
                ElementsAre(inRemove + "delete failed with Invalid address for specified address family for address " +
                            ip.toString()));
    EXPECT_THAT(linesOf(8, [&] { return manager.add(ipv4("10.0.0.1/24"), 0); }),
                ElementsAre(error + "(convertToAddress) - convertToAddress should have a parent different from 0",
                            error + "(add) - add failed of address"));
    EXPECT_EQ(inRemove + "remove failed of address",
              linesOf(8, [&] { return manager.remove(ipv4("192.168.1.10"), 1); }).at(1));
    EXPECT_TRUE(mirrorsKernel(manager));
}

TEST_F(Links, InterruptedRequestSpoilsNoLaterOne)
{
    CacheManager manager;
    Interface wanted("v0");
    auto const takes = [&](unsigned int mtu) {
        wanted.setMtu(mtu);
        return manager.update(wanted, tries);
    };
    test::failingRequests = 2;
    EXPECT_FALSE(takes(1400));
    test::failingRequests = 0;
    EXPECT_FALSE(takes(1)); // and not with the answer to the first
    EXPECT_TRUE(takes(1300));
}

TEST_F(Links, ChangesShowInTheNextQuery)
{
    run("ip link set v0 up; ip link set v1 up; ip address add 10.0.0.1/24 dev v1; for i in $(seq 100); do echo link "
        "add a$i type veth peer name b$i; done | ip -batch -");
    CacheManager manager;
    int const index = manager.getInterface("v0").getIndex();
    test::TraceLevel const scope(3);
    int const sleeps = test::sleeps;
    for (int i = 1; i <= 100; ++i) {
        std::string const number = std::to_string(i);
        Address const ip = ipv4("10.1." + number + ".1/24");
        EXPECT_TRUE(manager.add(ip, index));
        EXPECT_EQ(1U, manager.getIps(index).size()) << i;
        EXPECT_TRUE(manager.remove(ip, index));
        EXPECT_EQ(0U, manager.getIps(index).size()) << i;
        Route const route = routeTo("10.2." + number + ".0/24", "10.0.0.2/32");
        EXPECT_TRUE(manager.update(route, 0));
        EXPECT_TRUE(manager.getRoute(route.getDestination()).isAddedToKernel()) << i;
        EXPECT_TRUE(manager.remove(route)); // a signal ends its pause
        EXPECT_FALSE(manager.getRoute(route.getDestination()).isAddedToKernel()) << i;
        EXPECT_TRUE(manager.remove(Interface("a" + number)));
        EXPECT_FALSE(manager.getInterface("b" + number).isAddedToKernel()) << i;

        Interface wanted = linkWithIp("v0", "10.3." + number + ".1/24");
        wanted.setMtu(1300U + static_cast<unsigned int>(i));
        EXPECT_TRUE(manager.update(wanted, tries));
        EXPECT_TRUE(manager.remove(wanted.getIps()[0], index));
    }
    EXPECT_EQ(sleeps + 100, test::sleeps); // of the removals of routes
    EXPECT_THAT(test::takeLog(), IsEmpty());
    EXPECT_TRUE(mirrorsKernel(manager));
}

// The kernel notifies nobody of what changes on a link that is down.
TEST_F(Links, UpdatesReplaceTheAddressAndAreSeenOnADownLink)
{
    run("ip address add 10.9.9.9/32 dev v0");
    CacheManager manager;
    EXPECT_TRUE(manager.update(linkWithIp("v0", "192.168.1.10/24"), tries));
    EXPECT_THAT(output("ip address show v0"),
                AllOf(HasSubstr(",UP"), HasSubstr("inet 192.168.1.10/24"), Not(HasSubstr("inet 10."))));
    int const sleeps = test::sleeps;
    for (unsigned int i = 1; i <= 20; ++i) {
        Interface wanted("v0");
        wanted.setGroup(i);
        wanted.setAlias("link " + std::to_string(i));
        wanted.setModeDormant(i % 2 == 0);
        EXPECT_TRUE(manager.update(wanted, tries));
        Interface const found = manager.getInterface("v0");
        EXPECT_EQ(wanted.getAlias(), found.getAlias());
        EXPECT_EQ(wanted.isModeDormant(), found.isModeDormant());
    }
    EXPECT_EQ(sleeps, test::sleeps);
    auto const indexSent = [] {
        std::string const request = test::lastLinkRequest();
        return reinterpret_cast<ifinfomsg const*>(request.data() + NLMSG_HDRLEN)->ifi_index;
    };
    EXPECT_EQ(manager.getInterface("v0").getIndex(),
              indexSent()); // a group with a name may mean all links of the group
    EXPECT_TRUE(manager.update(Interface("v0"), tries));
    EXPECT_EQ(0, indexSent()); // here the name is enough
    EXPECT_THAT(output("ip address show v0"), AllOf(HasSubstr("inet 192.168.1.10/24"), Not(HasSubstr(",UP"))));
}

void expectAcceptedAsRead(std::string const& name)
{
    run("ip link set " + name + " up");
    CacheManager manager;
    Interface link = manager.getInterface(name);
    ASSERT_TRUE(link.isUp() && !link.getMac().getAddress().empty());
    link.setMtu(1300);
    EXPECT_TRUE(manager.update(link, tries)) << name;
    EXPECT_THAT(output("ip link show " + name), HasSubstr("mtu 1300"));
    EXPECT_THAT(test::lastLinkRequest(), Not(HasSubstr("\xff\xff\xff\xff\xff\xff"))); // nor the broadcast address
}

// An ifb refuses even the MAC that it has.
TEST_F(Links, AreAcceptedAsTheyWereRead)
{
    run("ip link set v1 up");
    expectAcceptedAsRead("v0");
    for (std::string const options : {"type ifb", "link v0 type vlan id 7"}) {
        if (hasKind(options)) {
            run("ip link add x0 " + options);
            expectAcceptedAsRead("x0");
            run("ip link delete x0");
        }
    }
}

TEST_F(Links, OrdinaryNicIsAcceptedAsItWasRead)
{
    char const* const nic = std::getenv("NETLINK_ROUTE_TEST_NIC");
    if (nic == nullptr) {
        GTEST_SKIP() << "no NETLINK_ROUTE_TEST_NIC";
    }
    ASSERT_EQ(0, setns(open("/proc/1/ns/net", O_RDONLY | O_CLOEXEC), CLONE_NEWNET)); // of the virtual machine
    expectAcceptedAsRead(nic);
}

TEST_F(Links, FailuresAreLoggedLineByLine)
{
    run("ip address add 10.0.0.1/24 dev v0; ip link set v0 up; ip link set v1 up");
    CacheManager manager;
    std::string const before = test::configuration();
    Interface tooSmall = manager.getInterface("v0");
    tooSmall.setMtu(1);
    EXPECT_THAT(linesOf(7, [&] { return manager.update(tooSmall, tries); }),
                ElementsAre(inUpdate + "update failed with Invalid input data or parameter for device id " +
                            std::to_string(tooSmall.getIndex()) + " and name v0"));
    EXPECT_THAT(linesOf(7, [&] { return manager.update(Interface("new"), tries); }),
                ElementsAre(debug1 + "(update) - interface with name new was not yet added",
                            inUpdate + "adding failed with Operation not supported for device id 0 and name new"));
    EXPECT_THAT(linesOf(7, [&] { return manager.remove(Interface("new")); }),
                ElementsAre(inRemove + "delete failed with No such device for new"));
    EXPECT_THAT(linesOf(9, [&] { return manager.remove(Interface("")); }), IsEmpty());
    EXPECT_EQ(before, test::configuration()); // refusals change nothing

    Interface other = manager.getInterface("v0");
    other.setIndex(4711); // never sent, and never found
    std::string const found = "(update) - last found Interface " + manager.getInterface("v0").toString();
    for (int const count : {0, 2}) {
        int const sleeps = test::sleeps;
        EXPECT_THAT(linesOf(7, [&] { return manager.update(other, count); }),
                    ElementsAre(inUpdate + "update failed because expected interface not found", error + found));
        EXPECT_EQ(sleeps + count, test::sleeps);
    }

    Interface wanted = linkWithIp("v0", "10.0.0.1/24"); // two addresses never pass the verification
    wanted.addIp(ipv4("10.1.0.1/24"), false);
    auto const lines = linesOf(3, [&] { return manager.update(wanted, 1); });
    EXPECT_THAT(lines, ElementsAre(inUpdate + "update failed because expected ips not found",
                                   inUpdate + "last found interface " + manager.getInterface("v0").toString()));
    EXPECT_THAT(output("ip address show v0"), HasSubstr("inet 10.1.0.1/24"));

    int const sleeps = test::sleeps; // without verification nothing waits, and all is done
    EXPECT_TRUE(manager.update(linkWithIp("v0", "10.2.0.1/24"), -1));
    EXPECT_EQ(sleeps, test::sleeps);
    EXPECT_THAT(output("ip address show v0"), HasSubstr("inet 10.2.0.1/24"));
    EXPECT_FALSE(manager.update(linkWithIp("v0", "10.3.0.1/24"), 1)); // which stands behind that one
}

TEST_F(Links, FailedAllocationsAreFailuresOfTheOperation)
{
    CacheManager manager;
    Route const route = routeTo("10.9.0.0/24", "10.0.0.2/32");
    test::TraceLevel const scope(3);
    test::failAllocations(1);
    EXPECT_FALSE(manager.update(Interface("v0"), tries) || manager.remove(Interface("v0")));
    EXPECT_FALSE(manager.update(route, tries) || manager.remove(route));
    test::failAllocations(0);
    EXPECT_THAT(test::takeLog(),
                ElementsAre(inUpdate + "update failed with Out of memory for device id 0 and name v0",
                            inRemove + "delete failed with Out of memory for v0",
                            inUpdate + "add failed with Out of memory", inUpdate + "for route " + route.toString(),
                            inRemove + "delete failed with Out of memory for route test"));
}

TEST_F(Links, NamesOfAnyKindReachNoOtherLink)
{
    using namespace std::string_literals;
    run("ip link add abcdefghijklmno type veth peer name v2; ip link set group 5 v2");
    CacheManager manager;
    std::string const before = test::configuration();
    for (std::string const& name : {""s, "abcdefghijklmnop"s, std::string(100000, 'v'), "v0\0"s, "\x01\n"s, "%s%n"s}) {
        std::string const shown = name.c_str();
        Interface wanted(name);
        wanted.setGroup(5);
        EXPECT_FALSE(manager.getInterface(name).isAddedToKernel() || manager.getVlan(name).isAddedToKernel());
        bool const sent = name.size() == 2 || name.size() == 4; // and refused, as it has no kind
        EXPECT_THAT(linesOf(3, [&] { return manager.update(wanted, tries); }),
                    ElementsAre(inUpdate + "adding failed with " +
                                (sent ? "Operation not supported" : "Invalid input data or parameter") +
                                " for device id 0 and name " + shown));
        EXPECT_THAT(linesOf(3, [&] { return manager.update(Vlan(name + ".7"), tries); }),
                    ElementsAre(inUpdate + "cannot add vlan because parent does not exist yet!"));
        EXPECT_EQ(name.empty() ? 0U : 1U, linesOf(3, [&] { return manager.remove(wanted); }).size());
    }
    EXPECT_EQ(before, test::configuration());
    run("ip link set v0 up");
    EXPECT_FALSE(manager.update(Vlan("v0.12345678901234"), tries));
    EXPECT_TRUE(mirrorsKernel(manager));
}

TEST_F(Links, EightThreadsShareOneManager)
{
    run("for i in $(seq 8); do echo link add t$i type veth peer name u$i; done | ip -batch -");
    CacheManager manager;
    std::atomic<int> accepted{0};
    std::vector<std::thread> workers;
    for (int i = 1; i <= 8; ++i) {
        workers.emplace_back([&, wanted = Interface("t" + std::to_string(i))]() mutable {
            for (unsigned int mtu = 1200; mtu < 1250; ++mtu) {
                wanted.setMtu(mtu);
                accepted += manager.update(wanted, -1) ? 1 : 0;
                accepted -= manager.update(routeTo("10.1.0.0/16", "172.16.0.1/32"), 0) ? 1 : 0; // refused
            }
        });
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
    EXPECT_EQ(8 * 50, accepted);
    EXPECT_EQ("8\n", output("ip link | grep -c 'mtu 1249'"));
    EXPECT_TRUE(mirrorsKernel(manager));
}

TEST_F(Vlans, NeedAParent)
{
    CacheManager manager;
    Vlan up("v0.100.7");
    up.setUp();
    std::string const missing = inUpdate + "cannot add vlan because parent does not exist yet!";
    for (auto const& [vlan, line] : {std::pair(Vlan("v0"), std::string()),
                                     {Vlan("none.100"), missing},
                                     {Vlan(".100"), missing},
                                     {up, inUpdate + "trying to add and activate vlan but parent is down!"}}) {
        auto const lines = linesOf(8, [&, &wanted = vlan] { return manager.update(wanted, tries); });
        EXPECT_EQ("7 [DEBUG2] CacheManager.cpp:N (update) - update start with vlan " + vlan.toString(), lines[0]);
        EXPECT_EQ(line, lines.size() > 1 ? lines.back() : "");
    }
    std::string const removing = "6 [INFO] CacheManager.cpp:N (remove) - removing vlan ";
    EXPECT_THAT(linesOf(6, [&] { return manager.remove(Vlan("none.7")); }),
                ElementsAre(removing + "none.7", inRemove + "delete failed with No such device for none.7"));
}

TEST_F(Vlans, AreMadeChangedAndRemoved)
{
    if (!hasKind("link v0 type vlan id 7")) {
        GTEST_SKIP() << "this kernel has no VLANs";
    }
    CacheManager manager;
    Vlan vlan("v0.100"); // down, as its parent
    EXPECT_TRUE(manager.update(vlan, tries));
    EXPECT_THAT(output("ip -d link show v0.100"), HasSubstr("vlan protocol 802.1Q id 100"));
    run("ip link set v0 up; ip link set v1 up");
    ASSERT_TRUE(mirrorsKernel(manager));
    vlan.setUp();
    vlan.setMtu(1300);
    vlan.addIp(ipv4("10.0.0.1/24"), false);
    EXPECT_TRUE(manager.update(vlan, tries));
    EXPECT_THAT(output("ip address show v0.100"),
                AllOf(HasSubstr("v0.100@v0:"), HasSubstr("mtu 1300"), HasSubstr("inet 10.0.0.1/24")));
    EXPECT_EQ(100, manager.getVlan("v0.100").getVlanIndex());
    EXPECT_TRUE(mirrorsKernel(manager));

    Vlan renamed("v0.5"); // the kernel's id counts, not the name's
    renamed.setVlanIndex(200);
    EXPECT_TRUE(manager.update(renamed, tries));
    EXPECT_EQ(200, manager.getVlan("v0.5").getVlanIndex());
    EXPECT_TRUE(manager.remove(vlan) && manager.remove(renamed));

    int const sleeps = test::sleeps;
    for (int i = 1; i <= 20; ++i) {
        Vlan quick("v0." + std::to_string(i));
        quick.setUp();
        quick.addIp(ipv4("10.7." + std::to_string(i) + ".1/24"), true);
        EXPECT_TRUE(manager.update(quick, tries));
    }
    EXPECT_EQ(sleeps, test::sleeps);
    EXPECT_TRUE(mirrorsKernel(manager));
}

TEST_F(Vlans, FailuresAreLoggedLineByLine)
{
    if (!hasKind("link v0 type vlan id 7")) {
        GTEST_SKIP() << "this kernel has no VLANs";
    }
    run("ip link set v0 up");
    CacheManager manager;
    EXPECT_THAT(
        linesOf(7, [&] { return manager.update(Vlan("v0.5000"), tries); }),
        ElementsAre(debug1 + "(update) - vlan with name v0.5000 was not yet added",
                    inUpdate + "adding failed with Input data out of range for device id 5000 and name v0.5000"));
    Vlan vlan("v0.7");
    auto const linesFor = [&](int level, int count) {
        return linesOf(level, [&] { return manager.update(vlan, count); });
    };
    linesFor(0, 0); // made, and not verified
    ASSERT_TRUE(eventually([&] { return manager.getVlan("v0.7").isAddedToKernel(); }));
    std::string const index = std::to_string(manager.getVlan("v0.7").getIndex());
    vlan.setIndex(std::stoi(index));
    vlan.setMtu(9000); // more than its parent's
    EXPECT_THAT(linesFor(7, tries), ElementsAre(inUpdate + "update failed with Input data out of range for device id " +
                                                index + " and name v0.7"));
    vlan.setMtu(1300);
    vlan.setVlanIndex(8); // an existing VLAN keeps its id
    EXPECT_THAT(linesFor(7, 1), ElementsAre(inUpdate + "update failed because expected vlan not found",
                                            StartsWith(inUpdate + "last found vlan name index           v0.7")));
    vlan.setVlanIndex(7);
    vlan.addIp(ipv4("10.0.0.1/24"), false);
    vlan.addIp(ipv4("10.0.1.1/24"), false);
    ASSERT_TRUE(mirrorsKernel(manager));
    auto lines = linesFor(7, 1);
    std::string const found = inUpdate + "last found vlan " + manager.getVlan("v0.7").toString();
    EXPECT_THAT(lines, IsSupersetOf({debug1 + "(update) - vlan test2 has index id " + index, found,
                                     inUpdate + "update failed because expected ips not found"}));
    int const sleeps = test::sleeps;
    lines = linesFor(3, 0);
    EXPECT_EQ(inUpdate + "last found vlan " + manager.getVlan("v0.7").toString(), lines.back());
    EXPECT_TRUE(manager.update(vlan, -1));
    EXPECT_EQ(sleeps, test::sleeps);
}

TEST_F(Routes, AreAddedFoundAndRemoved)
{
    run("ip address add 10.0.0.1/24 dev v0; ip link set v0 up; ip link set v1 up");
    CacheManager manager;
    Route multipath = routeTo("10.2.0.0/16", "10.0.0.2/32");
    multipath.setHops({ipv4("10.0.0.3/32"), ipv4("10.0.0.4/32")});
    Route inTable = routeTo("10.3.0.0/16", "10.0.0.2/32");
    inTable.setTable(static_cast<rt_class_t>(100));
    Route special = routeTo("10.4.0.0/16", "10.0.0.2/32");
    special.setProtocol(RTPROT_BOOT);
    special.setPriority(70);
    special.setTos(8);
    special.setSourcePreferred(ipv4("10.0.0.1/32"));
    Route unreachable("test");
    unreachable.setDestination(ipv4("10.5.0.0/16"));
    unreachable.setType(RTN_UNREACHABLE);
    unreachable.setScope(RT_SCOPE_NOWHERE);
    std::vector<std::pair<Route, std::string>> const cases{
        {routeTo("10.1.0.0/16", "10.0.0.2/32"), "10.1.0.0/16 via 10.0.0.2 dev v0 proto 4"},
        {routeTo("0.0.0.0/0", "10.0.0.2/32"), "default via 10.0.0.2 dev v0 proto 4"},
        {routeTo("default", "10.0.0.2/32"), "default via 10.0.0.2 dev v0 proto 4"},
        {multipath, "nexthop via 10.0.0.4 dev v0"},
        {inTable, "10.3.0.0/16 via 10.0.0.2 dev v0 table 100 proto 4"},
        {special, "10.4.0.0/16 tos 0x08 via 10.0.0.2 dev v0 src 10.0.0.1 metric 70"},
        {unreachable, "7 10.5.0.0/16 proto 4"}};
    test::TraceLevel const scope(3);
    for (auto const& [wanted, shown] : cases) {
        Route const& route = wanted;
        EXPECT_TRUE(manager.update(route, 0));
        EXPECT_THAT(output("ip -N -4 route show table all"), HasSubstr(shown));
        Address const destination = route.getDestination();
        ASSERT_TRUE(manager.getRoute(destination).isAddedToKernel()) << shown;
        EXPECT_FALSE(manager.getRoute(ipv4("10.1.0.0/24")).isAddedToKernel()); // exactly, or not at all
        Route expected = route; // as it is read: the default route in one form, the preferred source bare
        std::string const source = route.getSourcePreferred().getAddress();
        expected.setName("result");
        expected.setSourcePreferred(ipv4(source.substr(0, source.find("/32"))));
        if (destination.getAddress() == "default") {
            expected.setDestination(ipv4("0.0.0.0/0"));
        }
        Route const found = manager.getRoute(destination);
        EXPECT_EQ(expected.toString(), found.toString());
        EXPECT_TRUE(manager.getRoute(found.getDestination()).isAddedToKernel());
        int const sleeps = test::sleeps;
        EXPECT_TRUE(manager.remove(route));
        EXPECT_EQ(sleeps + 1, test::sleeps);
        EXPECT_TRUE(eventually([&] { return !manager.getRoute(destination).isAddedToKernel(); })) << shown;
        if (source.empty()) { // which is accepted only with a prefix length
            EXPECT_TRUE(manager.update(found, 0));
            EXPECT_THAT(output("ip -N -4 route show table all"), HasSubstr(shown));
            run("ip route flush table all proto static");
        }
    }
    EXPECT_TRUE(manager.update(cases[0].first, 0));
    EXPECT_TRUE(manager.update(routeTo("10.1.0.0/16", "10.0.0.3/32"), 0)); // beside it
    EXPECT_THAT(test::takeLog(), IsEmpty());
    EXPECT_TRUE(mirrorsKernel(manager));
}

TEST_F(Routes, RefusalsReturnAtOnce)
{
    CacheManager manager;
    std::string const before = test::configuration();
    Route const empty("nothing");
    Route const unreachable = routeTo("10.1.0.0/16", "172.16.0.1/32");
    int const sleeps = test::sleeps;
    EXPECT_THAT(
        linesOf(8, [&] { return manager.update(empty, 7); }),
        IsSupersetOf({"7 [DEBUG2] CacheManager.cpp:N (update) - updating route " + empty.toString(),
                      inUpdate + "add failed with Missing attribute", inUpdate + "for route " + empty.toString()}));
    EXPECT_THAT(linesOf(3, [&] { return manager.remove(empty); }),
                ElementsAre(inRemove + "delete failed with Missing attribute for route nothing"));
    EXPECT_FALSE(manager.update(unreachable, 7) || manager.remove(unreachable));
    EXPECT_EQ(sleeps, test::sleeps);
    EXPECT_EQ(before, test::configuration());
}

} // namespace
} // namespace netlink_route
