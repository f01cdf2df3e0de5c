// The operations that change a real kernel, and what they log. `ip` confirms what the library made.
#include "Support.h"

#include <algorithm>
#include <atomic>
#include <thread>

namespace netlink_route {
namespace {

using test::eventually;
using test::ipv4;
using test::mirrorsKernel;
using test::output;
using test::run;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr int tries = 5;
const std::string error = "3 [ERROR] CacheManager.cpp:N ";

class Addresses : public test::KernelTest {};
class Links : public test::KernelTest {};
class Vlans : public test::KernelTest {};
class Routes : public test::KernelTest {};

// Whether the kernel of this machine can make links of that kind.
bool hasKind(std::string const& options)
{
    const bool has = output("ip link add probe " + options + " 2>/dev/null && echo yes || true") == "yes\n";
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

TEST_F(Addresses, AreAddedAndRemoved)
{
    CacheManager manager;
    const int index = manager.getInterface("v0").getIndex();
    const Address ip = ipv4("192.168.1.10/24");
    const test::TraceLevel scope(7);
    EXPECT_TRUE(manager.add(ip, index));
    EXPECT_THAT(output("ip address show v0"), HasSubstr("inet 192.168.1.10/24 scope global"));
    EXPECT_FALSE(manager.add(ip, index));
    EXPECT_TRUE(mirrorsKernel(manager));
    EXPECT_TRUE(manager.remove(ip, index));
    EXPECT_THAT(output("ip address show v0"), Not(HasSubstr("inet 192")));
    EXPECT_FALSE(manager.remove(ip, index));
    EXPECT_TRUE(mirrorsKernel(manager));

    const std::string number = std::to_string(index);
    EXPECT_THAT(
        test::takeLog(),
        ElementsAre("7 [DEBUG1] CacheManager.cpp:N (add) - adding address " + ip.toString() + " to index " + number +
                        " success!",
                    error + "(add) - failure Object exists when adding address " + ip.toString() + " to index " +
                        number + "!",
                    error + "(remove) - delete failed with Invalid address for specified address family for address " +
                        ip.toString()));
}

TEST_F(Addresses, ThatDoNotConvertReachNoKernel)
{
    CacheManager manager;
    const test::TraceLevel scope(8);
    EXPECT_FALSE(manager.add(ipv4("192.168.1.10"), 1) || manager.remove(ipv4("192.168.1.10"), 1));
    EXPECT_FALSE(manager.add(ipv4("10.0.0.1/24"), 0) || manager.remove(ipv4(""), 1));
    const std::string notValid = error + "(convertToAddress) - address is not valid for family type!";
    EXPECT_THAT(test::takeLog(),
                ElementsAre(notValid, error + "(add) - add failed of address", notValid,
                            error + "(remove) - remove failed of address",
                            error + "(convertToAddress) - convertToAddress should have a parent different from 0",
                            error + "(add) - add failed of address",
                            "7 [DEBUG2] CacheManager.cpp:N (convertToAddress) - cannot convert an empty address",
                            error + "(remove) - remove failed of address"));
}

TEST_F(Links, TakeMtuAndAddressInOneUpdate)
{
    run("ip address add 10.0.0.9/24 dev v0; ip link set v1 up");
    CacheManager manager;
    Interface wanted = linkWithIp("v0", "192.168.1.10/24");
    wanted.setMtu(1400);
    wanted.setAlias("uplink");
    const test::TraceLevel scope(3);
    EXPECT_TRUE(manager.update(wanted, tries));
    EXPECT_THAT(test::takeLog(), IsEmpty());
    const std::string made = output("ip address show v0");
    EXPECT_THAT(made, HasSubstr(",UP"));
    EXPECT_THAT(made, HasSubstr("mtu 1400"));
    EXPECT_THAT(output("ip link show v0"), HasSubstr("alias uplink"));
    EXPECT_THAT(made, HasSubstr("inet 192.168.1.10/24"));
    EXPECT_THAT(made, Not(HasSubstr("inet 10.")));

    Interface withoutIps("v0"); // leaves the address, and takes the link down
    EXPECT_TRUE(manager.update(withoutIps, tries));
    EXPECT_THAT(output("ip address show v0"), HasSubstr("inet 192.168.1.10/24"));
    EXPECT_THAT(output("ip link show v0"), Not(HasSubstr(",UP")));
    EXPECT_TRUE(mirrorsKernel(manager));
}

TEST_F(Links, AreAcceptedAsTheyWereRead)
{
    std::vector<std::string> names{"v0"};
    run("ip link set v0 up; ip link set v1 up");
    if (hasKind("type dummy")) {
        run("ip link add d0 type dummy; ip link set d0 up");
        names.emplace_back("d0");
    }
    if (hasKind("link v0 type vlan id 7")) {
        run("ip link add v0.7 link v0 type vlan id 7; ip link set v0.7 up");
        names.emplace_back("v0.7");
    }
    CacheManager manager;
    for (std::string const& name : names) {
        Interface link = manager.getInterface(name);
        link.setMtu(1300);
        link.setMac(Address(link.getMac().getAddress(), Address::MAC));
        EXPECT_TRUE(manager.update(link, tries)) << name;
        EXPECT_THAT(output("ip link show " + name), HasSubstr("mtu 1300"));
    }
    EXPECT_TRUE(mirrorsKernel(manager));
}

TEST_F(Links, OrdinaryNicIsAcceptedAsItWasRead)
{
    const std::string name = test::testNic();
    if (name.empty()) {
        GTEST_SKIP() << "no NETLINK_ROUTE_TEST_NIC";
    }
    test::enterFirstNamespace();
    run("ip link set " + name + " up");
    CacheManager manager;
    Interface link = manager.getInterface(name);
    ASSERT_TRUE(link.isUp() && !link.getMac().getAddress().empty());
    link.setMtu(1300);
    EXPECT_TRUE(manager.update(link, tries));
    EXPECT_THAT(output("ip link show " + name), HasSubstr("mtu 1300"));
}

TEST_F(Links, FailuresAreLoggedLineByLine)
{
    run("ip address add 10.0.0.1/24 dev v0; ip link set v0 up; ip link set v1 up");
    CacheManager manager;
    const std::string before = output("ip -d address");
    const auto linesOf = [](int level, std::function<void()> const& work) {
        const test::TraceLevel scope(level);
        work();
        return test::takeLog();
    };
    Interface tooSmall = manager.getInterface("v0");
    tooSmall.setMtu(1);
    const std::string index = std::to_string(tooSmall.getIndex());
    EXPECT_THAT(linesOf(7, [&] { EXPECT_FALSE(manager.update(tooSmall, tries)); }),
                ElementsAre(error + "(update) - update failed with Invalid input data or parameter for device id " +
                            index + " and name v0"));
    EXPECT_THAT(linesOf(7, [&] { EXPECT_FALSE(manager.update(Interface("new"), tries)); }),
                ElementsAre("7 [DEBUG1] CacheManager.cpp:N (update) - interface with name new was not yet added",
                            error + "(update) - adding failed with Operation not supported for device id 0 and "
                                    "name new"));
    EXPECT_THAT(linesOf(7, [&] { EXPECT_FALSE(manager.remove(Interface("new"))); }),
                ElementsAre(error + "(remove) - delete failed with No such device for new"));
    EXPECT_THAT(linesOf(9, [&] { EXPECT_FALSE(manager.remove(Interface(""))); }), IsEmpty());
    EXPECT_EQ(before, output("ip -d address")); // refusals change nothing

    Interface other = manager.getInterface("v0");
    other.setIndex(4711); // never sent, and never found
    const auto exhausted = [&](int count) { return linesOf(7, [&] { EXPECT_FALSE(manager.update(other, count)); }); };
    const std::vector<std::string> notFound{error + "(update) - update failed because expected interface not found",
                                            error + "(update) - last found Interface " +
                                                manager.getInterface("v0").toString()};
    const int sleeps = test::sleepCount();
    EXPECT_EQ(notFound, exhausted(0));
    EXPECT_EQ(sleeps, test::sleepCount());
    EXPECT_EQ(notFound, exhausted(2));
    EXPECT_EQ(sleeps + 2, test::sleepCount());
}

TEST_F(Links, RequestsUseTheRightSocket)
{
    run("ip address add 10.0.0.1/24 dev v0; ip link set v0 up");
    CacheManager manager;
    const int index = manager.getInterface("v0").getIndex();
    Route route("r");
    route.setDestination(ipv4("10.1.0.0/16"));
    route.setGateway(ipv4("10.0.0.2/32"));
    Interface up("v0");
    up.setUp();
    const std::vector<std::pair<std::function<bool()>, long>> socketsOpened{
        {[&] { return manager.update(up, -1); }, 0},
        {[&] { return manager.update(route, 0); }, 0},
        {[&] { return manager.remove(route); }, 1},
        {[&] { return manager.add(ipv4("10.2.0.1/24"), index); }, 1},
        {[&] { return manager.remove(ipv4("10.2.0.1/24"), index); }, 1},
        {[&] { return manager.remove(Interface("v0")); }, 1}};
    for (const auto& [request, sockets] : socketsOpened) {
        const test::TraceLevel scope(8);
        EXPECT_TRUE(request());
        const auto lines = test::takeLog();
        EXPECT_EQ(sockets, std::count_if(lines.begin(), lines.end(), [](std::string const& line) {
                      return line.find("(RouteSocket) - get socket") != std::string::npos;
                  }));
    }
}

TEST_F(Links, TwoAddressesNeverPassTheVerification)
{
    CacheManager manager;
    Interface wanted = linkWithIp("v0", "10.0.0.1/24");
    wanted.addIp(ipv4("10.1.0.1/24"), false);
    const test::TraceLevel scope(3);
    EXPECT_FALSE(manager.update(wanted, 1));
    EXPECT_THAT(test::takeLog(),
                ElementsAre(error + "(update) - update failed because expected ips not found",
                            error + "(update) - last found interface " + manager.getInterface("v0").toString()));
    EXPECT_THAT(output("ip address show v0"), HasSubstr("inet 10.1.0.1/24"));

    const int sleeps = test::sleepCount(); // without verification nothing waits, and all is done
    EXPECT_TRUE(manager.update(linkWithIp("v0", "10.2.0.1/24"), -1));
    EXPECT_EQ(sleeps, test::sleepCount());
    EXPECT_THAT(output("ip address show v0"), HasSubstr("inet 10.2.0.1/24"));
}

TEST_F(Links, FailedAllocationsAreFailuresOfTheOperation)
{
    CacheManager manager;
    Route route("r");
    route.setDestination(ipv4("10.9.0.0/24"));
    const test::TraceLevel scope(3);
    test::failAllocations(1);
    EXPECT_FALSE(manager.update(Interface("v0"), tries) || manager.remove(Interface("v0")));
    EXPECT_FALSE(manager.update(route, tries) || manager.remove(route));
    test::failAllocations(0);
    EXPECT_THAT(test::takeLog(),
                ElementsAre(error + "(update) - update failed with Out of memory for device id 0 and name v0",
                            error + "(remove) - delete failed with Out of memory for v0",
                            error + "(update) - add failed with Out of memory",
                            error + "(update) - for route " + route.toString(),
                            error + "(remove) - delete failed with Out of memory for route r"));
}

TEST_F(Links, NamesOfAnyKindReachNoOtherLink)
{
    using namespace std::string_literals;
    run("ip link add abcdefghijklmno type veth peer name v2; ip link set group 5 v2");
    CacheManager manager;
    const std::string before = output("ip -d address");
    for (const std::string& name : {""s, "abcdefghijklmnop"s, std::string(100000, 'v'), "v0\0"s, "\x01\n"s, "%s%n"s}) {
        const test::TraceLevel scope(3);
        const std::string shown = name.c_str();
        Interface wanted(name);
        wanted.setGroup(5);
        wanted.setMtu(1300);
        Vlan vlan(name + ".7");
        EXPECT_FALSE(manager.getInterface(name).isAddedToKernel() || manager.getVlan(name).isAddedToKernel());
        EXPECT_FALSE(manager.update(wanted, tries));
        const bool sent = name.size() == 2 || name.size() == 4; // and refused, as it has no kind
        EXPECT_THAT(test::takeLog(),
                    ElementsAre(error + "(update) - adding failed with " +
                                (sent ? "Operation not supported" : "Invalid input data or parameter") +
                                " for device id 0 and name " + shown));
        EXPECT_FALSE(manager.update(vlan, tries));
        EXPECT_THAT(test::takeLog(),
                    ElementsAre(error + "(update) - cannot add vlan because parent does not exist yet!"));
        EXPECT_FALSE(manager.remove(wanted));
        EXPECT_EQ(name.empty() ? 0U : 1U, test::takeLog().size());
    }
    EXPECT_EQ(before, output("ip -d address"));
    run("ip link set v0 up");
    Vlan tooLong("v0.12345678901234");
    EXPECT_FALSE(manager.update(tooLong, tries));
    EXPECT_TRUE(mirrorsKernel(manager));
}

TEST_F(Links, EightThreadsShareOneManager)
{
    constexpr int threads = 8;
    constexpr int updates = 50;
    for (int i = 0; i < threads; i += 2) {
        run("ip link add t" + std::to_string(i) + " type veth peer name t" + std::to_string(i + 1));
    }
    CacheManager manager;
    std::atomic<int> accepted{0};
    std::vector<std::thread> workers;
    for (int i = 0; i < threads; ++i) {
        workers.emplace_back([&, name = "t" + std::to_string(i)] {
            for (unsigned int update = 0; update < updates; ++update) {
                Interface wanted(name);
                wanted.setMtu(1200 + update);
                accepted += manager.update(wanted, -1) ? 1 : 0;
            }
        });
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
    EXPECT_EQ(threads * updates, accepted);
    for (int i = 0; i < threads; ++i) {
        EXPECT_THAT(output("ip link show t" + std::to_string(i)), HasSubstr("mtu 1249"));
    }
    EXPECT_TRUE(mirrorsKernel(manager));
}

TEST_F(Vlans, NeedAParent)
{
    CacheManager manager;
    const auto linesOf = [&](Vlan const& vlan) {
        const test::TraceLevel scope(8);
        EXPECT_FALSE(manager.update(vlan, tries));
        auto lines = test::takeLog();
        EXPECT_EQ("7 [DEBUG2] CacheManager.cpp:N (update) - update start with vlan " + vlan.toString(), lines[0]);
        lines.erase(lines.begin());
        return lines;
    };
    const std::string missing = error + "(update) - cannot add vlan because parent does not exist yet!";
    EXPECT_THAT(linesOf(Vlan("v0")), IsEmpty());
    EXPECT_EQ(missing, linesOf(Vlan("none.100")).back());
    EXPECT_EQ(missing, linesOf(Vlan(".100")).back());
    Vlan up("v0.100.7");
    up.setUp();
    EXPECT_EQ(error + "(update) - trying to add and activate vlan but parent is down!", linesOf(up).back());

    const test::TraceLevel scope(6);
    EXPECT_FALSE(manager.remove(Vlan("")));
    EXPECT_FALSE(manager.remove(Vlan("none.7")));
    EXPECT_THAT(test::takeLog(), ElementsAre("6 [INFO] CacheManager.cpp:N (remove) - removing vlan ",
                                             "6 [INFO] CacheManager.cpp:N (remove) - removing vlan none.7",
                                             error + "(remove) - delete failed with No such device for none.7"));
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
    const std::string made = output("ip address show v0.100");
    EXPECT_THAT(made, HasSubstr("v0.100@v0:"));
    EXPECT_THAT(made, HasSubstr("mtu 1300"));
    EXPECT_THAT(made, HasSubstr("inet 10.0.0.1/24"));
    EXPECT_EQ(100, manager.getVlan("v0.100").getVlanIndex());
    EXPECT_TRUE(mirrorsKernel(manager));

    Vlan renamed("v0.5"); // the kernel's id counts, not the name's
    renamed.setVlanIndex(200);
    EXPECT_TRUE(manager.update(renamed, tries));
    EXPECT_EQ(200, manager.getVlan("v0.5").getVlanIndex());
    EXPECT_TRUE(manager.remove(vlan) && manager.remove(renamed));
    EXPECT_TRUE(mirrorsKernel(manager));
}

TEST_F(Vlans, FailuresAreLoggedLineByLine)
{
    if (!hasKind("link v0 type vlan id 7")) {
        GTEST_SKIP() << "this kernel has no VLANs";
    }
    run("ip link set v0 up");
    CacheManager manager;
    const std::string debug1 = "7 [DEBUG1] CacheManager.cpp:N (update) - ";
    const test::TraceLevel scope(7);
    Vlan outOfRange("v0.5000");
    EXPECT_FALSE(manager.update(outOfRange, tries));
    EXPECT_THAT(test::takeLog(),
                ElementsAre(debug1 + "vlan with name v0.5000 was not yet added",
                            error + "(update) - adding failed with Input data out of range for device id 5000 and "
                                    "name v0.5000"));
    Vlan vlan("v0.7");
    EXPECT_FALSE(manager.update(vlan, 0)); // made, and not verified
    ASSERT_TRUE(eventually([&] { return manager.getVlan("v0.7").isAddedToKernel(); }));
    test::takeLog();
    vlan.setIndex(manager.getVlan("v0.7").getIndex());
    vlan.setMtu(9000); // more than its parent's
    EXPECT_FALSE(manager.update(vlan, tries));
    EXPECT_THAT(test::takeLog(),
                ElementsAre(error + "(update) - update failed with Input data out of range for device id " +
                            std::to_string(vlan.getIndex()) + " and name v0.7"));
    vlan.setMtu(1300);
    vlan.setVlanIndex(8); // an existing VLAN keeps its id
    EXPECT_FALSE(manager.update(vlan, 1));
    EXPECT_THAT(test::takeLog(),
                ElementsAre(error + "(update) - update failed because expected vlan not found",
                            testing::StartsWith(error + "(update) - last found vlan name index           v0.7")));
    vlan.setVlanIndex(7);
    vlan.addIp(ipv4("10.0.0.1/24"), false);
    vlan.addIp(ipv4("10.0.1.1/24"), false);
    ASSERT_TRUE(mirrorsKernel(manager));
    EXPECT_FALSE(manager.update(vlan, 1));
    EXPECT_THAT(test::takeLog(),
                testing::IsSupersetOf({debug1 + "vlan test2 has index id " + std::to_string(vlan.getIndex()),
                                       error + "(update) - update failed because expected ips not found",
                                       error + "(update) - last found vlan " + manager.getVlan("v0.7").toString()}));
    const int sleeps = test::sleepCount();
    trace::setLevel(3);
    EXPECT_FALSE(manager.update(vlan, 0));
    EXPECT_EQ(error + "(update) - last found vlan " + manager.getVlan("v0.7").toString(), test::takeLog().back());
    EXPECT_TRUE(manager.update(vlan, -1));
    EXPECT_EQ(sleeps, test::sleepCount());
}

Route routeTo(std::string const& destination, std::string const& gateway)
{
    Route route("test");
    route.setDestination(ipv4(destination));
    route.setGateway(ipv4(gateway));
    return route;
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
    const std::vector<std::pair<Route, std::string>> cases{
        {routeTo("10.1.0.0/16", "10.0.0.2/32"), "10.1.0.0/16 via 10.0.0.2 dev v0 proto 4"},
        {routeTo("0.0.0.0/0", "10.0.0.2/32"), "default via 10.0.0.2 dev v0 proto 4"},
        {routeTo("default", "10.0.0.2/32"), "default via 10.0.0.2 dev v0 proto 4"},
        {multipath, "nexthop via 10.0.0.4 dev v0"},
        {inTable, "10.3.0.0/16 via 10.0.0.2 dev v0 table 100 proto 4"},
        {special, "10.4.0.0/16 tos 0x08 via 10.0.0.2 dev v0 src 10.0.0.1 metric 70"},
        {unreachable, "7 10.5.0.0/16 proto 4"}};
    const test::TraceLevel scope(3);
    for (const auto& [wanted, shown] : cases) {
        const Route& route = wanted;
        EXPECT_TRUE(manager.update(route, 0));
        EXPECT_THAT(output("ip -N -4 route show table all"), HasSubstr(shown));
        const Address destination = route.getDestination();
        ASSERT_TRUE(eventually([&] { return manager.getRoute(destination).isAddedToKernel(); })) << shown;
        Route expected = route; // as it is read: host addresses bare, the default route in one form
        const auto bare = [](std::string const& text) { return ipv4(text.substr(0, text.find("/32"))); };
        expected.setName("result");
        expected.setGateway(bare(route.getGateway().getAddress()));
        expected.setSourcePreferred(bare(route.getSourcePreferred().getAddress()));
        expected.setHops({});
        for (Address const& hop : route.getHops()) {
            expected.addHop(bare(hop.getAddress()));
        }
        if (destination.getAddress() == "default") {
            expected.setDestination(ipv4("0.0.0.0/0"));
        }
        const Route found = manager.getRoute(destination);
        EXPECT_EQ(expected.toString(), found.toString());
        EXPECT_TRUE(manager.getRoute(found.getDestination()).isAddedToKernel());
        const int sleeps = test::sleepCount();
        EXPECT_TRUE(manager.remove(route));
        EXPECT_EQ(sleeps + 1, test::sleepCount());
        EXPECT_TRUE(eventually([&] { return !manager.getRoute(destination).isAddedToKernel(); })) << shown;
    }
    EXPECT_THAT(test::takeLog(), IsEmpty());
    EXPECT_TRUE(mirrorsKernel(manager));
}

TEST_F(Routes, AreFoundByTheExactDestination)
{
    run("ip address add 10.0.0.1/24 dev v0; ip link set v0 up");
    run("ip route add 10.1.0.0/16 dev v0 table 100; ip route add 10.1.0.0/16 dev v0 table 50");
    CacheManager manager;
    EXPECT_FALSE(manager.getRoute(ipv4("10.1.2.3/32")).isAddedToKernel());
    EXPECT_FALSE(manager.getRoute(ipv4("10.1.0.0/24")).isAddedToKernel());
    EXPECT_FALSE(manager.getRoute(ipv4("10.1.0.1/16")).isAddedToKernel());
    EXPECT_FALSE(manager.getRoute(ipv4("10.1.0.1/0")).isAddedToKernel());
    const unsigned int first = manager.getRoute(ipv4("10.1.0.0/16")).getTable();
    run("ip route delete 10.1.0.0/16 dev v0 table " + std::to_string(first));
    EXPECT_TRUE(eventually([&] { return manager.getRoute(ipv4("10.1.0.0/16")).getTable() == 150 - first; }));
}

TEST_F(Routes, RefusalsReturnAtOnce)
{
    run("ip address add 10.0.0.1/24 dev v0; ip link set v0 up; ip link set v1 up");
    CacheManager manager;
    const std::string before = output("ip -4 route show table all");
    const Route unreachable = routeTo("10.1.0.0/16", "172.16.0.1/32");
    const Route empty("nothing");
    const test::TraceLevel scope(8);
    const int sleeps = test::sleepCount();
    EXPECT_FALSE(manager.update(unreachable, 7));
    EXPECT_FALSE(manager.update(empty, 7));
    trace::setLevel(3);
    EXPECT_FALSE(manager.remove(unreachable));
    EXPECT_FALSE(manager.remove(empty));
    EXPECT_EQ(sleeps, test::sleepCount());
    auto lines = test::takeLog();
    lines.erase(
        std::remove_if(lines.begin(), lines.end(),
                       [](std::string const& line) { return line.find("an empty address") != std::string::npos; }),
        lines.end());
    EXPECT_THAT(lines, ElementsAre("7 [DEBUG2] CacheManager.cpp:N (update) - updating route " + unreachable.toString(),
                                   testing::StartsWith(error + "(update) - add failed with "),
                                   error + "(update) - for route " + unreachable.toString(),
                                   "7 [DEBUG2] CacheManager.cpp:N (update) - updating route " + empty.toString(),
                                   error + "(update) - add failed with Missing attribute",
                                   error + "(update) - for route " + empty.toString(),
                                   testing::AllOf(testing::StartsWith(error + "(remove) - delete failed with "),
                                                  testing::EndsWith(" for route test")),
                                   error + "(remove) - delete failed with Missing attribute for route nothing"));
    EXPECT_EQ(before, output("ip -4 route show table all"));
}

} // namespace
} // namespace netlink_route
