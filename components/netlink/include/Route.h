/// @file
#pragma once

#include "AddedToKernelInterface.h"
#include "Address.h"
#include "Export.h"

#include <linux/rtnetlink.h>
#include <string>
#include <vector>

namespace netlink_route {

/// One IPv4 route: what a caller wants to add or remove, or what the kernel holds.
///
/// A plain value that checks nothing. An address with an empty text is not given and not sent; the numbers are
/// always sent, from the start with the values below. A route names no link: the kernel finds the link by the
/// gateway. Every setter returns true.
///
/// @warning A gateway, a hop or a preferred source without its prefix length (10.0.0.1 instead of 10.0.0.1/32) does
/// not convert: it is left out with an error in the log, and the rest of the route is sent without it.
class NETLINK_ROUTE_API Route : public AddedToKernelInterface {
public:
    /// A route of that name with no address, in the main table, of the protocol "static", of type unicast.
    explicit Route(std::string label);

    ///@{

    /// Values are handed over whole, the hops and the flag of AddedToKernelInterface included.
    Route(Route const&) = default;
    Route(Route&&) = default;
    Route& operator=(Route const&) = default;
    Route& operator=(Route&&) = default;
    ~Route() override;
    ///@}

    ///@{

    /// A label of the caller's choosing, never sent. A route read from the kernel is called "result".
    std::string getName() const;
    bool setName(std::string text);
    ///@}

    ///@{

    /// The gateway of the first next hop, with its prefix length: 10.0.0.1/32.
    Address getGateway() const;
    bool setGateway(Address const& address);
    ///@}

    ///@{

    /// How far the destination is: RT_SCOPE_UNIVERSE behind a gateway, and from the start.
    rt_scope_t getScope() const;
    bool setScope(rt_scope_t value);
    ///@}

    ///@{

    /// The routing table, RT_TABLE_MAIN from the start.
    rt_class_t getTable() const;
    bool setTable(rt_class_t value);
    ///@}

    ///@{

    /// Who installed the route, one of RTPROT_* in `<linux/rtnetlink.h>`, RTPROT_STATIC from the start. A removal fits
    /// the routes of that protocol alone; RTPROT_UNSPEC fits those of any.
    unsigned char getProtocol() const;
    bool setProtocol(unsigned char value);
    ///@}

    ///@{

    /// The type of service of the packets that the route is for. 0: of any.
    unsigned char getTos() const;
    bool setTos(unsigned char value);
    ///@}

    ///@{

    /// The metric: the lowest wins. A removal with priority 0 fits a route of any metric.
    unsigned int getPriority() const;
    bool setPriority(unsigned int value);
    ///@}

    ///@{

    /// AF_INET from the start; the library handles no other.
    unsigned char getFamily() const;
    bool setFamily(unsigned char value);
    ///@}

    ///@{

    /// One of RTN_* in `<linux/rtnetlink.h>`, RTN_UNICAST from the start.
    unsigned char getType() const;
    bool setType(unsigned char value);
    ///@}

    ///@{

    /// The network that the route leads to, with its prefix length; the default route is 0.0.0.0/0. That of a single
    /// host is read back bare: append /32 before handing the route in again.
    Address getDestination() const;
    bool setDestination(Address const& address);
    ///@}

    ///@{

    /// The prefix of the senders that the route applies to. A value to store: libnl keeps none in an IPv4 route, so it
    /// is neither sent nor read.
    Address getSource() const;
    bool setSource(Address const& address);
    ///@}

    ///@{

    /// The address that packets of this host get as their source. It is read back bare: append /32 before handing
    /// the route in again.
    Address getSourcePreferred() const;
    bool setSourcePreferred(Address address);
    ///@}

    ///@{

    /// The gateways of the further next hops, in order, with their prefix lengths.
    std::vector<Address> getHops() const;
    bool setHops(std::vector<Address> list);
    bool addHop(Address hop);
    ///@}

    /// One labelled line a field, and one a hop.
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
