// The value classes: defaults, refusals, comparisons and dumps.
#include "Support.h"

#include <climits>
#include <locale>

namespace netlink_route {
namespace {

using test::ipv4;
using testing::ElementsAre;
using testing::IsEmpty;

const char* const emptyDump = "name index           eth0 and index 0\n"
                              "group:               0\n"
                              "mac address:         \n"
                              "broadcast_address:   \n"
                              "mtu:                 0\n"
                              "tx queue length:     0\n"
                              "alias:               \n"
                              "arp type:            0\n"
                              "queue discipline:    \n"
                              "promiscuity count:   0\n"
                              "tx queue amount:     0\n"
                              "rx queue amount:     0\n"
                              "mode dormant:        0\n"
                              "is active:           0\n"
                              "ip address count:    0\n";

TEST(Values, InterfaceDumpsEveryField)
{
    Interface link("eth0");
    EXPECT_EQ(emptyDump, link.toString());
    link.setIndex(-1);
    link.setGroup(UINT_MAX);
    link.setMac(Address("00:11:22:33:44:55", Address::MAC));
    link.setBroadcast(Address("ff:ff:ff:ff:ff:ff", Address::MAC));
    link.setMtu(1500);
    link.setTxQueueLength(1000);
    link.setAlias("uplink");
    link.setArpType(1);
    link.setQueueingDiscipline("fq");
    link.setPromiscuityCount(2);
    link.setNbrTxQueues(3);
    link.setNbrRxQueues(4);
    link.setModeDormant(true);
    link.setUp();
    link.addIp(ipv4("10.0.0.1/24"), false);
    link.addIp(Address("fe80::1/64", Address::IPV6), false);
    EXPECT_EQ("name index           eth0 and index -1\n"
              "group:               4294967295\n"
              "mac address:         00:11:22:33:44:55\n"
              "broadcast_address:   ff:ff:ff:ff:ff:ff\n"
              "mtu:                 1500\n"
              "tx queue length:     1000\n"
              "alias:               uplink\n"
              "arp type:            1\n"
              "queue discipline:    fq\n"
              "promiscuity count:   2\n"
              "tx queue amount:     3\n"
              "rx queue amount:     4\n"
              "mode dormant:        1\n"
              "is active:           1\n"
              "ip address count:    2\n"
              "ip address:          10.0.0.1/24\n"
              "ip address:          fe80::1/64\n",
              Interface(link).toString());
}

TEST(Values, InterfaceRefusalsChangeNothing)
{
    Interface link("eth0");
    link.setIndex(5);
    link.addIp(ipv4("10.0.0.1/24"), false);
    const std::string before = link.toString();
    EXPECT_FALSE(link.setName(""));
    EXPECT_FALSE(link.setIndex(0));
    EXPECT_FALSE(link.setGroup(0));
    EXPECT_FALSE(link.setMac(ipv4("10.0.0.1/24")));
    EXPECT_FALSE(link.setBroadcast(Address("", Address::NONE)));
    EXPECT_FALSE(link.addIp(ipv4(""), true));
    EXPECT_FALSE(link.addIp(Address("00:11:22:33:44:55", Address::MAC), true));
    EXPECT_FALSE(link.deleteIp(ipv4("10.0.0.1")));
    EXPECT_EQ(before, link.toString());
    EXPECT_TRUE(link.setMac(Address("", Address::MAC)));
    EXPECT_EQ(Address::MAC, link.getMac().getType());
}

TEST(Values, IpListKeepsOrderAndDuplicates)
{
    Interface link("eth0");
    for (const char* text : {"10.0.0.1/8", "10.0.0.2/8", "10.0.0.1/8", "10.0.0.3/8"}) {
        EXPECT_TRUE(link.addIp(ipv4(text), false));
    }
    EXPECT_TRUE(link.deleteIp(Address("10.0.0.1/8", Address::OTHER)));
    const std::string label = "ip address:          ";
    EXPECT_THAT(link.toString(),
                testing::EndsWith("3\n" + label + "10.0.0.2/8\n" + label + "10.0.0.1/8\n" + label + "10.0.0.3/8\n"));
    EXPECT_TRUE(link.addIp(link.getIps().back(), true));
    EXPECT_THAT(link.toString(), testing::EndsWith("1\n" + label + "10.0.0.3/8\n"));
}

TEST(Values, UnsetFieldsMatchAnything)
{
    const Address mac("00:11:22:33:44:aa", Address::MAC);
    const Address otherMac("00:11:22:33:44:AA", Address::MAC); // the case counts
    using Change = std::function<void(Interface&)>;
    const std::vector<std::pair<Change, Change>> compared{
        {[](Interface& i) { i.setIndex(1); }, [](Interface& i) { i.setIndex(2); }},
        {[](Interface& i) { i.setGroup(1); }, [](Interface& i) { i.setGroup(2); }},
        {[&](Interface& i) { i.setMac(mac); }, [&](Interface& i) { i.setMac(otherMac); }},
        {[&](Interface& i) { i.setBroadcast(mac); }, [&](Interface& i) { i.setBroadcast(otherMac); }},
        {[](Interface& i) { i.setMtu(1); }, [](Interface& i) { i.setMtu(2); }},
        {[](Interface& i) { i.setArpType(1); }, [](Interface& i) { i.setArpType(2); }},
    };
    const Interface unset("eth0");
    for (std::size_t i = 0; i < compared.size(); ++i) {
        Interface lhs("eth0");
        Interface rhs("eth0");
        compared[i].first(lhs);
        compared[i].second(rhs);
        EXPECT_TRUE(lhs == unset && unset == rhs && lhs == lhs) << i;
        EXPECT_TRUE(lhs != rhs && rhs != lhs && !(lhs == rhs)) << i;
    }
    Interface ignored("eth0");
    ignored.setUp();
    ignored.setAlias("a");
    ignored.setTxQueueLength(1);
    ignored.setQueueingDiscipline("fq");
    ignored.setModeDormant(true);
    ignored.addIp(ipv4("10.0.0.1/24"), false);
    EXPECT_TRUE(ignored == unset);
    EXPECT_TRUE(ignored != Interface("eth1"));
}

TEST(Values, VlanIndexComesFromTheName)
{
    // clang-format off
    const std::vector<std::pair<const char*, int>> cases{
        {"eth0.100", 100}, {"eth0.100.7", 100}, {"eth0.12abc", 12}, {"eth0.abc", 0}, {"eth0.", 0}, {"eth0", 0},
        {"100", 100}, {"eth0. +7", 7}, {"eth0.-5", -5}, {".3", 3}, {"eth0.99999999999", INT_MAX}, {"a.-99999999999", INT_MIN}};
    // clang-format on
    for (const auto& [name, index] : cases) {
        EXPECT_EQ(index, Vlan(name).getVlanIndex()) << name;
    }
    Vlan vlan("eth0.100");
    EXPECT_EQ(std::string(emptyDump).replace(21, 4, "eth0.100") + "vlan index:    100\n", vlan.toString());
    EXPECT_TRUE(vlan.setName("eth0.7"));
    EXPECT_EQ(100, vlan.getVlanIndex());
}

TEST(Values, VlanComparisonLogsBothSides)
{
    const Vlan vlan("eth0.100");
    Vlan other("eth0.100");
    EXPECT_TRUE(other.setVlanIndex(0));
    EXPECT_TRUE(vlan == other);
    other.setVlanIndex(200);
    EXPECT_FALSE(vlan == other);
    EXPECT_FALSE(vlan != other); // as interfaces
    EXPECT_FALSE(vlan == Vlan("eth1.100"));

    const test::TraceLevel scope(8);
    EXPECT_FALSE(vlan == other);
    const std::string prefix = "7 [DEBUG2] Vlan.cpp:N (operator==) - ";
    EXPECT_THAT(test::takeLog(),
                ElementsAre(prefix + "compare lhs: " + vlan.toString(), prefix + "compare rhs: " + other.toString(),
                            prefix + "vlan is interface wise the same : yes"));
    EXPECT_FALSE(vlan == Vlan("x"));
    EXPECT_EQ(prefix + "vlan is interface wise the same : no", test::takeLog().back());
    trace::setLevel(7);
    EXPECT_FALSE(vlan == other);
    EXPECT_THAT(test::takeLog(), IsEmpty());
}

TEST(Values, RouteDumpsEveryField)
{
    Route route("r");
    EXPECT_EQ("route with name       r\n"
              "source:               \n"
              "source preferred:     \n"
              "destination:          \n"
              "gateway:              \n"
              "scope:                0\n"
              "table:                254\n"
              "protocol:             4\n"
              "tos:                  0\n"
              "priority:             0\n"
              "family:               2\n"
              "type:                 1\n",
              route.toString());
    const bool stored =
        route.setName("") && route.setSource(ipv4("a")) && route.setSourcePreferred(ipv4("b")) &&
        route.setDestination(ipv4("c")) && route.setGateway(ipv4("d")) && route.setScope(RT_SCOPE_NOWHERE) &&
        route.setTable(RT_TABLE_MAX) && route.setProtocol(255) && route.setTos(254) && route.setPriority(UINT_MAX) &&
        route.setFamily(253) && route.setType(252) && route.setHops({ipv4("x"), ipv4("y")}) && route.setHops({}) &&
        route.addHop(ipv4("e")) && route.addHop(Address("", Address::NONE)) && route.setAddedToKernel(true);
    EXPECT_TRUE(stored);
    Route copy(route);
    EXPECT_TRUE(copy.isAddedToKernel());
    EXPECT_EQ("route with name       \n"
              "source:               a\n"
              "source preferred:     b\n"
              "destination:          c\n"
              "gateway:              d\n"
              "scope:                255\n"
              "table:                4294967295\n"
              "protocol:             255\n"
              "tos:                  254\n"
              "priority:             4294967295\n"
              "family:               253\n"
              "type:                 252\n"
              "hop ip address:          e\n"
              "hop ip address:          \n",
              copy.toString());
}

TEST(Values, HostLocaleChangesNothing)
{
    struct Grouping : std::numpunct<char> {
        char do_thousands_sep() const override { return '.'; }
        std::string do_grouping() const override { return "\1"; }
        std::string do_truename() const override { return "oui"; }
    };
    const std::locale before = std::locale::global(std::locale(std::locale(), new Grouping));
    Vlan vlan("eth0.1234");
    vlan.setMtu(65536);
    Route route("r");
    route.setPriority(1234567);
    const std::string dump = vlan.toString() + route.toString() + ipv4("x").toString();
    const int parsed = Vlan("eth0.4.094").getVlanIndex();
    std::locale::global(before);
    EXPECT_EQ(4, parsed);
    EXPECT_EQ(vlan.toString() + route.toString() + ipv4("x").toString(), dump);
    EXPECT_EQ(1234, vlan.getVlanIndex());
}

} // namespace
} // namespace netlink_route
