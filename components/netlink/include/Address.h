/// @file
#pragma once

#include "Export.h"

#include <string>

namespace netlink_route {

/// One network address: a text, and what kind of address the text is.
///
/// A plain value that checks nothing: what the text means is decided when CacheManager converts it. An empty
/// text means "not given". Texts that the library takes and gives:
///
/// | Type | Taken | Read back |
/// |---|---|---|
/// | MAC  | six hexadecimal numbers of one or two digits, 00:11:22:33:44:55 | two digits each, in lower case |
/// | IPV4 | an address with its prefix length, 192.168.1.10/24, a host with /32 | the same; without /32, see below |
/// | IPV4 | default, any, all or none | 0.0.0.0/0 |
///
/// @warning Given to a link, a bare, misspelt or IPv6 address takes away the IPv4 address that the link has, and adds
/// none: see CacheManager::update. Look at a text from outside before you hand it in.
///
/// An address of a link, a destination and a preferred source are read back without the prefix length when that
/// is 32: 10.0.0.1. Append /32 before handing such a text in again. Gateways and hops of a route are read back with
/// it: 10.0.0.1/32.
class NETLINK_ROUTE_API Address {
public:
    /// What kind of address the text is.
    enum TYPE : int {
        NONE = 0,  ///< no address
        OTHER = 1, ///< read from the kernel, and neither of the link layer nor IPv4
        MAC = 2,   ///< a link-layer address
        IPV4 = 3,  ///< an IPv4 address with its prefix length
        IPV6 = 4   ///< only callers set it: the kernel's IPv6 addresses are read as OTHER, and none is sent
    };

    /// Stores both as they are.
    Address(std::string text, TYPE kind);

    ///@{

    /// The text and the type. Both setters store any value and return true.
    std::string getAddress() const;
    TYPE getType() const;

    bool setAddress(std::string text);
    bool setType(TYPE kind);
    ///@}

    /// Two labelled lines: the text, and the type as a number.
    std::string toString() const;

private:
    std::string address;
    TYPE type;
};

} // namespace netlink_route
