// Values to libnl's objects and back.
#include "Support.h"

#include "NetlinkPtr.h"

#include <linux/if.h>
#include <netlink/errno.h>
#include <netlink/msg.h>
#include <netlink/route/link/vlan.h>

namespace netlink_route {
namespace {

using test::ipv4;
using testing::ElementsAre;

const std::string prefix = "CacheManager.cpp:N ";

TEST(Conversion, AddressesThatConvert)
{
    const std::vector<std::tuple<Address, int, unsigned int, unsigned int>> cases{
        {Address("00:11:22:33:44:AF", Address::MAC), AF_LLC, 6, 48},
        {ipv4("192.168.1.10/24"), AF_INET, 4, 24},
        {ipv4("10.0.0.1/32"), AF_INET, 4, 32},
        {ipv4("0.0.0.0/0"), AF_INET, 4, 0},
        {ipv4("default"), AF_INET, 0, 0},
        {ipv4("none"), AF_INET, 0, 0}};
    for (const auto& [address, family, length, prefixLength] : cases) {
        const NlAddrPtr converted(CacheManager::convertToAddress(address));
        ASSERT_NE(nullptr, converted) << address.getAddress();
        EXPECT_EQ(family, nl_addr_get_family(converted.get()));
        EXPECT_EQ(length, nl_addr_get_len(converted.get()));
        EXPECT_EQ(prefixLength, nl_addr_get_prefixlen(converted.get())) << address.getAddress();
    }
}

TEST(Conversion, AddressesThatDoNot)
{
    const std::string notParsed = "3 [ERROR] " + prefix + "(convertToAddress) - failed to parse address ";
    const std::string notValid = "3 [ERROR] " + prefix + "(convertToAddress) - address is not valid for family type!";
    const std::string empty = "7 [DEBUG2] " + prefix + "(convertToAddress) - cannot convert an empty address";
    using namespace std::string_literals;
    const test::TraceLevel scope(8);
    for (const char* text : {"", "192.168.1.10"}) {
        EXPECT_EQ(nullptr, CacheManager::convertToAddress(ipv4(text)));
        EXPECT_THAT(test::takeLog(), ElementsAre(*text == '\0' ? empty : notValid));
    }
    for (const auto type : {Address::NONE, Address::OTHER, Address::IPV6}) {
        EXPECT_EQ(nullptr, CacheManager::convertToAddress(Address("fe80::1/64", type)));
        EXPECT_THAT(test::takeLog(), ElementsAre(notValid));
    }
    const std::vector<std::string> texts{"300.1.1.1/24",  "10.0.0.1/33",    "10.0.0.1/280", "10.0.0.1/-1",
                                         "10.0.0.1/",     "10.0.0.1/x",     "10.0.0.1/24x", "10.0.0.1/4294967320",
                                         "10.0.0.1/010",  "default/8",      "none/24",      "10.0.0.1/0x8",
                                         "10.0.0.1/24\n", "10.0.0.1/24\0"s, "%s%n",         std::string(100000, '1')};
    for (const std::string& text : texts) {
        EXPECT_EQ(nullptr, CacheManager::convertToAddress(ipv4(text)));
        const std::vector<std::string> expected{notParsed + ipv4(text).toString().c_str() + " to nl_addr"};
        EXPECT_TRUE(expected == test::takeLog()) << text.substr(0, 20);
    }
    for (const std::string& text : {"0:1:2:3:4:5:6:7:8"s, "0:1:2:3:4:555"s, "00:11:22:33:44"s, "00:11:22:33:44:55:66"s,
                                    "00:11:22:33:44:5g"s, "default"s}) {
        EXPECT_EQ(nullptr, CacheManager::convertToAddress(Address(text, Address::MAC))) << text;
    }
}

TEST(Conversion, AddressesFromTheKernel)
{
    const auto read = [](int family, std::vector<unsigned char> bytes, int prefixLength) {
        const NlAddrPtr address(nl_addr_build(family, bytes.data(), bytes.size()));
        nl_addr_set_prefixlen(address.get(), prefixLength);
        const Address result = CacheManager::generateFromAddress(address.get());
        return std::to_string(result.getType()) + " " + result.getAddress();
    };
    EXPECT_EQ("2 00:11:22:33:44:af", read(AF_LLC, {0, 0x11, 0x22, 0x33, 0x44, 0xaf}, 48));
    EXPECT_EQ("3 10.0.0.1/8", read(AF_INET, {10, 0, 0, 1}, 8));
    EXPECT_EQ("3 10.0.0.1", read(AF_INET, {10, 0, 0, 1}, 32));
    EXPECT_EQ("1 ::1", read(AF_INET6, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, 128));

    const test::TraceLevel scope(3);
    EXPECT_EQ(Address::NONE, CacheManager::generateFromAddress(nullptr).getType());
    EXPECT_THAT(test::takeLog(), ElementsAre("3 [ERROR] " + prefix + "(generateFromAddress) - null pointer!"));
}

// The attributes of the request that libnl builds from a link.
std::vector<int> attributesSent(rtnl_link* link)
{
    nl_msg* message = nullptr;
    EXPECT_EQ(0, rtnl_link_build_change_request(link, link, 0, &message));
    std::vector<int> types;
    nlattr* attribute = nullptr;
    int rest = 0;
    nlmsg_for_each_attr(attribute, nlmsg_hdr(message), sizeof(ifinfomsg), rest)
    {
        types.push_back(nla_type(attribute));
    }
    nlmsg_free(message);
    return types;
}

TEST(Conversion, UnsetFieldsAreNotSent)
{
    const LinkPtr link(CacheManager::convertToLink(Interface("eth0")));
    EXPECT_THAT(attributesSent(link.get()), testing::UnorderedElementsAre(IFLA_IFNAME, IFLA_LINKMODE));
    // Down is always sent: the flag is given, and not set.
    EXPECT_EQ(0U, rtnl_link_get_flags(link.get()) & IFF_UP);
    nl_msg* message = nullptr;
    ASSERT_EQ(0, rtnl_link_build_change_request(link.get(), link.get(), 0, &message));
    const auto* const info = static_cast<const ifinfomsg*>(nlmsg_data(nlmsg_hdr(message)));
    EXPECT_EQ(static_cast<unsigned int>(IFF_UP), info->ifi_change);
    nlmsg_free(message);
}

TEST(Conversion, LinksKeepEveryFieldThereAndBack)
{
    Interface wanted("eth0");
    wanted.setGroup(7);
    wanted.setMac(Address("00:11:22:33:44:55", Address::MAC));
    wanted.setBroadcast(Address("ff:ff:ff:ff:ff:fe", Address::MAC));
    wanted.setMtu(1400);
    wanted.setTxQueueLength(900);
    wanted.setAlias("uplink");
    wanted.setArpType(1);
    wanted.setQueueingDiscipline("fq");
    wanted.setPromiscuityCount(1);
    wanted.setNbrTxQueues(2);
    wanted.setNbrRxQueues(3);
    wanted.setModeDormant(true);
    wanted.setUp();
    const LinkPtr link(CacheManager::convertToLink(wanted));
    const Interface read = CacheManager::generateFromLink("eth0", link.get());
    EXPECT_EQ(wanted.toString(), read.toString());
    EXPECT_FALSE(Interface(read).isAddedToKernel());
}

TEST(Conversion, FlagsAreLoggedAsBits)
{
    const LinkPtr link(rtnl_link_alloc());
    rtnl_link_set_flags(link.get(), 0x1043);
    const test::TraceLevel scope(9);
    CacheManager::generateFromLink("eth0", link.get());
    EXPECT_EQ("7 [DEBUG3] " + prefix +
                  "(generateFromLinkCommonHelper) - flags of link 00000000000000000001000001000011",
              test::takeLog().back());
}

TEST(Conversion, VlansCarryTheLow16BitsOfTheirIndex)
{
    Vlan vlan("eth0.100");
    for (const int index : {100, 65636}) {
        vlan.setVlanIndex(index);
        const LinkPtr link(CacheManager::convertToLink(vlan));
        EXPECT_EQ(100, rtnl_link_vlan_get_id(link.get()));
        EXPECT_EQ(100, CacheManager::generateFromLinkVlan("x", link.get()).getVlanIndex());
    }
    const LinkPtr ordinary(CacheManager::convertToLink(Interface("eth0")));
    EXPECT_EQ(-NLE_OPNOTSUPP, CacheManager::generateFromLinkVlan("eth0.7", ordinary.get()).getVlanIndex());
}

TEST(Conversion, RoutesKeepEveryFieldThereAndBack)
{
    Route route("r");
    const RoutePtr bare(CacheManager::convertToRoute(route));
    EXPECT_EQ(0, rtnl_route_get_nnexthops(bare.get()));
    EXPECT_EQ(nullptr, rtnl_route_get_dst(bare.get()));
    EXPECT_EQ(0, rtnl_route_get_iif(bare.get()));
    route.setName("result"); // what every route is called that was read
    EXPECT_EQ(route.toString(), CacheManager::generateFromRoute(bare.get()).toString());

    route.setScope(RT_SCOPE_LINK);
    route.setTable(static_cast<rt_class_t>(1000));
    route.setProtocol(RTPROT_BOOT);
    route.setTos(8);
    route.setPriority(70000);
    route.setType(RTN_LOCAL);
    route.setDestination(ipv4("10.1.0.0/16"));
    route.setSource(ipv4("10.2.0.0/16")); // libnl keeps none for IPv4
    route.setSourcePreferred(ipv4("10.3.0.1/24"));
    route.setGateway(ipv4("10.0.0.1/24"));
    route.setHops({ipv4("10.0.0.2/24"), ipv4("10.0.0.3/24")});
    Route withGaps = route;
    route.setSource(ipv4(""));
    withGaps.setHops({ipv4("10.0.0.2/24"), ipv4(""), ipv4("10.0.0.9"), ipv4("10.0.0.3/24")});
    const RoutePtr full(CacheManager::convertToRoute(withGaps));
    EXPECT_EQ(3, rtnl_route_get_nnexthops(full.get()));
    EXPECT_EQ(0, rtnl_route_get_iif(full.get()));
    EXPECT_EQ(route.toString(), CacheManager::generateFromRoute(full.get()).toString());

    const test::TraceLevel scope(3);
    EXPECT_EQ("", CacheManager::generateFromRoute(nullptr).getName());
    EXPECT_THAT(test::takeLog(), ElementsAre("3 [ERROR] " + prefix + "(generateFromRoute) - null pointer!"));
}

TEST(Conversion, FailedAllocationGivesNull)
{
    Route route("r");
    route.setGateway(ipv4("10.0.0.1/32"));
    route.addHop(ipv4("10.0.0.2/32"));
    for (const int first : {1, 2, 3}) { // the route, its gateway, its hop
        test::failAllocations(first);
        EXPECT_EQ(nullptr, CacheManager::convertToRoute(route)) << first;
    }
    test::failAllocations(1);
    EXPECT_EQ(nullptr, CacheManager::convertToLink(Interface("eth0")));
    test::failAllocations(0);
}

} // namespace
} // namespace netlink_route
