#pragma once

#include "AddedToKernelInterface.h"
#include "Address.h"
#include "Export.h"

#include <linux/rtnetlink.h>
#include <string>
#include <vector>

namespace netlink_route {

// One IP route: what a caller wants to add or remove, or what the kernel holds.
//
// A plain value that checks nothing. An address with an empty text is not given and not sent; the numbers are
// always sent, from the start with the values below. Every setter returns true.
class NETLINK_ROUTE_API Route : public AddedToKernelInterface {
public:
    explicit Route(std::string name);
    Route(Route const&) = default;
    Route& operator=(Route const&) = default;
    ~Route() override;

    // A label of the caller's choosing, never sent. A route read from the kernel is called "result".
    std::string getName() const;
    bool setName(std::string name);

    // The gateway of the first next hop.
    Address getGateway() const;
    bool setGateway(Address const& gateway);

    rt_scope_t getScope() const;
    bool setScope(rt_scope_t scope);

    rt_class_t getTable() const;
    bool setTable(rt_class_t table);

    // Who owns the route, one of RTPROT_* in <linux/rtnetlink.h>.
    unsigned char getProtocol() const;
    bool setProtocol(unsigned char protocol);

    unsigned char getTos() const;
    bool setTos(unsigned char tos);

    // The metric: the lowest wins.
    unsigned int getPriority() const;
    bool setPriority(unsigned int priority);

    // AF_INET, ...
    unsigned char getFamily() const;
    bool setFamily(unsigned char family);

    // One of RTN_* in <linux/rtnetlink.h>.
    unsigned char getType() const;
    bool setType(unsigned char type);

    // The network that the route leads to, with its prefix length; the default route is 0.0.0.0/0.
    Address getDestination() const;
    bool setDestination(Address const& destination);

    // The prefix of the senders that the route applies to.
    Address getSource() const;
    bool setSource(Address const& source);

    // The address that packets of this host get as their source.
    Address getSourcePreferred() const;
    bool setSourcePreferred(Address source);

    // The gateways of the further next hops, in order.
    std::vector<Address> getHops() const;
    bool setHops(std::vector<Address> hops);
    bool addHop(Address hop);

    // One labelled line a field, and one a hop.
    std::string toString() const;

private:
    std::string name;
    Address gateway{"", Address::NONE};
    rt_scope_t scope = RT_SCOPE_UNIVERSE;
    rt_class_t table = RT_TABLE_MAIN;
    unsigned char protocol = RTPROT_STATIC;
    unsigned char tos = 0;
    unsigned int priority = 0;
    unsigned char family = 2; // AF_INET
    unsigned char type = RTN_UNICAST;
    Address destination{"", Address::NONE};
    Address source{"", Address::NONE};
    Address sourcePreferred{"", Address::NONE};
    std::vector<Address> hops;
};

} // namespace netlink_route
