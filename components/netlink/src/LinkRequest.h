// What a request for a link may carry, and when an update has what it wanted.
#pragma once

#include "Interface.h"
#include "NetlinkPtr.h"

#include <string>

namespace netlink_route {

// 0 when the link may be sent, or libnl's error. libnl would cut a name that is too long, perhaps to the name of another
// link; and to the kernel an empty name together with a group means every link of the group.
int checkLink(rtnl_link* link, std::string const& name);

// Whether the wanted MAC or broadcast address, which may be null, is the one that the link has already. It is left out of
// a request then: an ordinary NIC that is up refuses to have its MAC set, even to the same one.
bool isSameMac(nl_addr* wanted, Address const& current);

// Whether both have as many addresses, and the same text for the first one.
bool hasSameIps(Interface const& found, Interface const& wanted);

} // namespace netlink_route
