// The value classes: defaults, refusals, comparisons and dumps.
#include "Support.h"

#include <climits>
#include <locale>

namespace netlink_route {
namespace {

using test::ipv4;
using testing::ElementsAre;
using Texts = std::vector<std::string>;

// A dump: each label with its value; the values beyond them have the last label.
std::string dump(Texts const& labels, Texts const& values)
{
    std::string text;
    for (std::size_t i = 0; i < values.size(); ++i) {
        text += labels[std::min(i, labels.size() - 1)] + values[i] + "\n";
    }
    return text;
}

std::string linkDump(Texts const& values)
{
    return dump({"name index           ", "group:               ", "mac address:         ", "broadcast_address:   ",
                 "mtu:                 ", "tx queue length:     ", "alias:               ", "arp type:            ",
                 "queue discipline:    ", "promiscuity count:   ", "tx queue amount:     ", "rx queue amount:     ",
                 "mode dormant:        ", "is active:           ", "ip address count:    ", "ip address:          "},
                values);
}

std::string const unset = linkDump({"@ and index 0", "0", "", "", "0", "0", "", "0", "", "0", "0", "0", "0", "0", "0"});

TEST(Values, LinksDumpEveryField)
{
    EXPECT_EQ(unset, Interface("@").toString());
    Interface link = test::linkWithEveryField("eth0");
    link.setIndex(-1);
    link.setGroup(UINT_MAX);
    link.addIp(Address("fe80::1/64", Address::IPV6), false);
    EXPECT_EQ(linkDump({"eth0 and index -1", "4294967295", "00:11:22:33:44:55", "ff:ff:ff:ff:ff:fe", "1400", "9000",
                        "uplink", "6", "fq", "4", "2", "3", "1", "1", "1", "fe80::1/64"}),
              Interface(link).toString());
    link.setDown();
    EXPECT_FALSE(link.isUp());
}

TEST(Values, LinksRefuseWithoutAChangeAndKeepTheOrderOfAddresses)
{
    Interface link("@");
    link.setIndex(5);
    for (char const* text : {"10.0.0.1/8", "10.0.0.2/8", "10.0.0.1/8", "10.0.0.3/8"}) {
        EXPECT_TRUE(link.addIp(ipv4(text), false));
    }
    EXPECT_FALSE(link.setName("") || link.setIndex(0) || link.setGroup(0) || link.setMac(ipv4("10.0.0.1/24")) ||
                 link.setBroadcast(Address("", Address::NONE)) || link.addIp(ipv4(""), true) ||
                 link.addIp(Address("00:11:22:33:44:55", Address::MAC), true) || link.deleteIp(ipv4("10.0.0.1")));
    EXPECT_TRUE(link.setMac(Address("", Address::MAC)) && link.deleteIp(Address("10.0.0.1/8", Address::OTHER)));
    Texts fields{"@ and index 5", "0", "", "", "0", "0", "", "0", "", "0", "0", "0", "0", "0"};
    fields.insert(fields.end(), {"3", "10.0.0.2/8", "10.0.0.1/8", "10.0.0.3/8"});
    EXPECT_EQ(linkDump(fields), link.toString());
    EXPECT_TRUE(link.addIp(ipv4("10.0.0.4/8"), true));
    ASSERT_EQ(1U, link.getIps().size());
    EXPECT_EQ("10.0.0.4/8", link.getIps()[0].getAddress());
}

TEST(Values, UnsetFieldsMatchAnything)
{
    Interface const none("eth0");
    auto const check = [&none](auto set, auto const& value, auto const& other) {
        Interface lhs("eth0");
        Interface rhs("eth0");
        EXPECT_TRUE((lhs.*set)(value) && (rhs.*set)(other));
        EXPECT_TRUE(lhs == none && none == rhs && lhs == lhs && lhs != rhs && !(rhs == lhs)) << lhs.toString();
    };
    Address const mac("a", Address::MAC);
    Address const capital("A", Address::MAC); // the case counts
    check(&Interface::setIndex, 1, 2);
    check(&Interface::setGroup, 1U, 2U);
    check(&Interface::setMtu, 1U, 2U);
    check(&Interface::setArpType, 1U, 2U);
    check(&Interface::setMac, mac, capital);
    check(&Interface::setBroadcast, mac, capital);
    EXPECT_TRUE(test::linkWithEveryField("eth0") == none); // whatever is not compared
    EXPECT_TRUE(none != Interface("eth1"));
}

TEST(Values, VlanIndexComesFromTheName)
{
    // clang-format off
    std::vector<std::pair<char const*, int>> const cases{
        {"eth0.100", 100}, {"eth0.100.7", 100}, {"eth0.12abc", 12}, {"eth0.abc", 0}, {"eth0.", 0}, {"eth0", 0},
        {"100", 100}, {"eth0. +7", 7}, {"eth0.-5", -5}, {".3", 3}, {"eth0.99999999999", INT_MAX}, {"a.-99999999999", INT_MIN}};
    // clang-format on
    for (auto const& [name, index] : cases) {
        EXPECT_EQ(index, Vlan(name).getVlanIndex()) << name;
    }
    Vlan vlan("eth0.100");
    EXPECT_TRUE(vlan.setName("@"));
    EXPECT_EQ(unset + "vlan index:    100\n", vlan.toString());
}

TEST(Values, VlanComparisonLogsBothSides)
{
    Vlan const vlan("eth0.100");
    Vlan other("eth0.100");
    EXPECT_TRUE(other.setVlanIndex(0));
    EXPECT_TRUE(vlan == other);
    other.setVlanIndex(200);
    EXPECT_FALSE(vlan != other); // as interfaces

    test::TraceLevel const scope(8);
    std::string const prefix = "7 [DEBUG2] Vlan.cpp:N (operator==) - ";
    EXPECT_FALSE(vlan == other);
    EXPECT_THAT(test::takeLog(),
                ElementsAre(prefix + "compare lhs: " + vlan.toString(), prefix + "compare rhs: " + other.toString(),
                            prefix + "vlan is interface wise the same : yes"));
    EXPECT_FALSE(vlan == Vlan("eth1.100"));
    EXPECT_EQ(prefix + "vlan is interface wise the same : no", test::takeLog().back());
}

TEST(Values, RoutesAndAddressesDumpEveryField)
{
    Texts const labels{
        "route with name       ",   "source:               ", "source preferred:     ", "destination:          ",
        "gateway:              ",   "scope:                ", "table:                ", "protocol:             ",
        "tos:                  ",   "priority:             ", "family:               ", "type:                 ",
        "hop ip address:          "};
    EXPECT_EQ(dump(labels, {"r", "", "", "", "", "0", "254", "4", "0", "0", "2", "1"}), Route("r").toString());
    Route route = test::routeWithEveryField();
    EXPECT_TRUE(route.setName("") && route.setScope(RT_SCOPE_NOWHERE) && route.setTable(RT_TABLE_MAX) &&
                route.setFamily(253) && route.addHop(Address("", Address::NONE)) && route.setAddedToKernel(true));
    Route copy(route);
    EXPECT_TRUE(copy.isAddedToKernel());
    EXPECT_EQ(dump(labels, {"", "10.2.0.0/16", "10.3.0.1/24", "10.1.0.0/16", "10.0.0.1/24", "255", "4294967295", "3",
                            "8", "70000", "253", "2", "10.0.0.2/24", "10.0.0.3/24", ""}),
              copy.toString());
    route.setHops({});
    EXPECT_THAT(route.getHops(), testing::IsEmpty());

    Address address("a", Address::MAC);
    EXPECT_TRUE(address.setAddress("b") && address.setType(Address::OTHER));
    EXPECT_EQ("\taddress               b\n\ttype:                 1\n", address.toString());
}

TEST(Values, HostLocaleChangesNothing)
{
    struct Grouping : std::numpunct<char> {
        std::string do_grouping() const override { return "\3"; } // 1,000
    };
    auto const dumps = [] {
        return Vlan("eth0.1094").toString() + test::linkWithEveryField("a").toString() +
               test::routeWithEveryField().toString();
    };
    std::string const expected = dumps();
    std::locale const before = std::locale::global(std::locale(std::locale(), new Grouping));
    std::string const found = dumps();
    std::locale::global(before);
    EXPECT_EQ(expected, found);
}

} // namespace
} // namespace netlink_route
