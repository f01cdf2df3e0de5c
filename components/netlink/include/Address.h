#pragma once

#include "Export.h"

#include <string>

namespace netlink_route {

// One network address: a text, and what kind of address the text is.
//
// A plain value that checks nothing: what the text means is settled when CacheManager converts it. An empty
// text means "not given". Texts that the library takes and gives:
//   MAC    six pairs of hexadecimal digits, 00:11:22:33:44:55; read back in lower case
//   IPV4   an address with its prefix length, 192.168.1.10/24, a host with /32; read back from the kernel
//          without the prefix length when that is 32
class NETLINK_ROUTE_API Address {
public:
    enum TYPE : int {
        NONE = 0,  // no address
        OTHER = 1, // read from the kernel, and neither of the link layer nor IPv4
        MAC = 2,   // a link-layer address
        IPV4 = 3,
        IPV6 = 4 // only callers set it: the kernel's IPv6 addresses are read as OTHER, and none is sent
    };

    Address(std::string address, TYPE type);

    std::string getAddress() const;
    TYPE getType() const;

    // Both store any value and return true.
    bool setAddress(std::string address);
    bool setType(TYPE type);

    // Two labelled lines: the text, and the type as a number.
    std::string toString() const;

private:
    std::string address;
    TYPE type;
};

} // namespace netlink_route
