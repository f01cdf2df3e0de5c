// Values to libnl's objects and back.
#include "Faults.h"
#include "Support.h"

#include "NetlinkPtr.h"

#include <array>
#include <linux/if.h>
#include <netlink/errno.h>
#include <netlink/msg.h>
#include <netlink/route/link/vlan.h>

namespace netlink_route {
namespace {

using namespace test;
using namespace testing;
using namespace std::string_literals;

std::string const prefix = "CacheManager.cpp:N ";

Address mac(std::string const& text) { return {text, Address::MAC}; }

TEST(Conversion, AddressesThatConvert)
{
    auto const read = [](nl_addr* address) {
        Address const result = CacheManager::generateFromAddress(address);
        return std::to_string(result.getType()) + " " + result.getAddress();
    };
    for (auto const& [address, expected] : {std::pair(mac("0:1:2:3:4:AF"), "2 00:01:02:03:04:af"),
                                            {ipv4("192.168.1.10/24"), "3 192.168.1.10/24"},
                                            {ipv4("10.0.0.1/32"), "3 10.0.0.1"},
                                            {ipv4("0.0.0.0/0"), "3 0.0.0.0/0"}}) {
        EXPECT_EQ(expected, read(NlAddrPtr(CacheManager::convertToAddress(address)).get()));
    }
    for (char const* const word : {"default", "DEFAULT", "none"}) { // later versions of libnl give it bytes
        EXPECT_THAT(read(NlAddrPtr(CacheManager::convertToAddress(ipv4(word))).get()), AnyOf("3 none", "3 0.0.0.0/0"));
    }
    EXPECT_EQ("1 ::", read(NlAddrPtr(nl_addr_build(AF_INET6, std::array<char, 16>{}.data(), 16)).get()));
}

TEST(Conversion, AddressesThatDoNot)
{
    test::TraceLevel const scope(8);
    auto const logOf = [](Address const& address) {
        EXPECT_EQ(nullptr, CacheManager::convertToAddress(address));
        return test::takeLog();
    };
    std::string const error = "3 [ERROR] " + prefix + "(convertToAddress) - ";
    std::vector<std::string> const notValid{error + "address is not valid for family type!"};
    EXPECT_THAT(logOf(ipv4("")),
                ElementsAre("7 [DEBUG2] " + prefix + "(convertToAddress) - cannot convert an empty address"));
    EXPECT_EQ(notValid, logOf(ipv4("192.168.1.10")));
    for (auto const type : {Address::NONE, Address::OTHER, Address::IPV6}) {
        EXPECT_EQ(notValid, logOf(Address("fe80::1/64", type)));
    }
    for (std::string const& text :
         {"300.1.1.1/24"s, "10.0.0.1/33"s, "10.0.0.1/280"s, "10.0.0.1/-1"s, "10.0.0.1/"s, "10.0.0.1/x"s,
          "10.0.0.1/24x"s, "10.0.0.1/4294967320"s, "10.0.0.1/010"s, "default/8"s, "none/24"s, "10.0.0.1/0x8"s,
          "10.0.0.1/24\n"s, "default\0"s, "%s%n"s, std::string(100000, '1')}) {
        std::vector<std::string> const expected{error + "failed to parse address " + ipv4(text).toString().c_str() +
                                                " to nl_addr"};
        EXPECT_TRUE(expected == logOf(ipv4(text))) << text.substr(0, 20);
    }
    for (char const* text : {"0:1:2:3:4:5:6:7:8", "0:1:2:3:4:555", "00:11:22:33:44", "00:11:22:33:44:55:66",
                             "00:11:22:33:44:5g", "default"}) {
        EXPECT_EQ(1U, logOf(mac(text)).size()) << text;
    }
}

TEST(Conversion, UnsetFieldsAreNotSent)
{
    LinkPtr const link(CacheManager::convertToLink(Interface("eth0")));
    nl_msg* message = nullptr;
    ASSERT_EQ(0, rtnl_link_build_change_request(link.get(), link.get(), 0, &message));
    std::vector<int> types;
    nlattr* attribute = nullptr;
    int rest = 0;
    nlmsg_for_each_attr(attribute, nlmsg_hdr(message), sizeof(ifinfomsg), rest)
    {
        types.push_back(nla_type(attribute));
    }
    EXPECT_THAT(types, UnorderedElementsAre(IFLA_IFNAME, IFLA_LINKMODE));
    auto const* const info = static_cast<ifinfomsg const*>(nlmsg_data(nlmsg_hdr(message)));
    EXPECT_EQ(0U, info->ifi_flags & IFF_UP); // down is always sent
    EXPECT_EQ(static_cast<unsigned int>(IFF_UP), info->ifi_change);
    EXPECT_EQ(nullptr, rtnl_link_get_qdisc(link.get())); // which libnl would not send
    nlmsg_free(message);
}

TEST(Conversion, LinksKeepEveryFieldThereAndBack)
{
    Vlan wanted("eth0.100");
    static_cast<Interface&>(wanted) = test::linkWithEveryField("eth0.7"); // this changes the name alone
    LinkPtr const link(CacheManager::convertToLink(static_cast<Interface const&>(wanted)));
    EXPECT_EQ(wanted.Interface::toString(), CacheManager::generateFromLink("eth0.7", link.get()).toString());
    // Of another kind of link the index is an error code.
    EXPECT_EQ(-NLE_OPNOTSUPP, CacheManager::generateFromLinkVlan("eth0.7", link.get()).getVlanIndex());
    for (int const index : {100, 65636}) { // the low 16 bits are 100
        wanted.setVlanIndex(index);
        LinkPtr const vlan(CacheManager::convertToLink(wanted));
        EXPECT_EQ(wanted.Interface::toString() + "vlan index:    100\n",
                  CacheManager::generateFromLinkVlan("eth0.7", vlan.get()).toString());
    }
    Interface kept = test::linkWithEveryField("eth0"); // a link without addresses leaves those of the interface
    CacheManager::generateFromLinkCommonHelper(kept, LinkPtr(rtnl_link_alloc()).get());
    EXPECT_EQ(wanted.getMac().getAddress() + wanted.getBroadcast().getAddress(),
              kept.getMac().getAddress() + kept.getBroadcast().getAddress());
    rtnl_link_set_flags(link.get(), 0x1042);
    test::TraceLevel const scope(9);
    CacheManager::generateFromLink("eth0", link.get());
    EXPECT_EQ("7 [DEBUG3] " + prefix +
                  "(generateFromLinkCommonHelper) - flags of link 00000000000000000001000001000011",
              test::takeLog().back());
}

TEST(Conversion, RoutesKeepEveryFieldThereAndBack)
{
    Route route = test::routeWithEveryField();
    Route withGaps = route;
    withGaps.setHops({ipv4("10.0.0.2/24"), ipv4(""), ipv4("10.0.0.9"), ipv4("10.0.0.3/24")});
    route.setSource(ipv4("")); // libnl keeps none for IPv4
    RoutePtr const full(CacheManager::convertToRoute(withGaps));
    EXPECT_EQ(0, rtnl_route_get_iif(full.get()));
    EXPECT_EQ(route.toString(), CacheManager::generateFromRoute(full.get()).toString());
}

TEST(Conversion, NullPointersAndFailedAllocationsGiveNothing)
{
    test::TraceLevel const scope(3);
    EXPECT_EQ(Address::NONE, CacheManager::generateFromAddress(nullptr).getType());
    EXPECT_EQ("", CacheManager::generateFromRoute(nullptr).getName());
    CacheManager::convertToLinkCommonHelper(nullptr, Interface("a"));
    EXPECT_EQ("a", CacheManager::generateFromLink("a", nullptr).getName());
    EXPECT_EQ(-NLE_OPNOTSUPP, CacheManager::generateFromLinkVlan("a", nullptr).getVlanIndex());
    auto const lines = test::takeLog();
    EXPECT_THAT(lines, AllOf(SizeIs(5), Each(EndsWith(" - null pointer!"))));
    EXPECT_EQ("3 [ERROR] " + prefix + "(generateFromAddress) - null pointer!", lines[0]);
    for (int const first : {1, 2, 3}) { // the route, its gateway, its hop
        test::failAllocations(first);
        EXPECT_EQ(nullptr, CacheManager::convertToRoute(test::routeWithEveryField())) << first;
    }
    test::failAllocations(1);
    EXPECT_EQ(nullptr, CacheManager::convertToRoute(Route("r")));
    EXPECT_EQ(nullptr, CacheManager::convertToLink(Interface("eth0")));
    test::failAllocations(0);
}

} // namespace
} // namespace netlink_route
