// What a request for a link may carry, and when an update has what it wanted.
#pragma once

#include "Interface.h"
#include "NetlinkPtr.h"

#include <string>

namespace netlink_route {

// 0 when the link may be sent, or libnl's error. libnl would cut a name that is too long, perhaps to the name of another
// link; and to the kernel an empty name together with a group means every link of the group.
int checkLink(rtnl_link* link, std::string const& name);

// Takes a MAC or a broadcast address that the link has already out of what is wanted: an ordinary NIC that is up refuses
// to have its MAC set, even to the same one.
void leaveOutKnownAddresses(Interface& wanted, Interface const& current);

// Whether both have as many addresses, and the same text for the first one.
bool hasSameIps(Interface const& found, Interface const& wanted);

} // namespace netlink_route
