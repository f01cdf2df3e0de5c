// Which texts are addresses. libnl's own parser, nl_addr_parse, takes more, and what it takes depends on its version:
// so the text is checked here first.
#pragma once

#include "Address.h"
#include "NetlinkPtr.h"

#include <string>

namespace netlink_route {

// The address family that a type is sent as, and the type that a family is read as.
int familyOf(Address::TYPE type);
Address::TYPE typeOf(int family);

// What libnl makes of the text, or null when the text is not an address of that family:
//   AF_INET  four decimal numbers and a prefix length from 0 to 32, or one of libnl's words for "all addresses"
//   AF_LLC   six hexadecimal numbers of one or two digits
NlAddrPtr parseAddress(std::string const& text, int family);

// The address with its prefix length, which libnl leaves out of the text of a whole IPv4 address: with it, the text
// can be handed in again.
Address withPrefixLength(Address address);

// Whether there is a NUL inside the text: libnl takes C strings, and would use what is before it.
bool holdsNul(std::string const& text);

} // namespace netlink_route
