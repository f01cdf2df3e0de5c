// What the kernel may queue on a socket that receives notifications.
#pragma once

namespace netlink_route {

// Lets through what concerns the caches, or the routes in them: the changes of links, of IPv4 addresses and routes, of
// queueing disciplines and of nexthop objects. Left out are
//   the per-family copies of a link. The kernel notifies a link with ifi_family AF_UNSPEC, and again with AF_INET6 or
//   AF_BRIDGE when the settings of that family change; such a copy has only some of the attributes. libnl would keep
//   the IPv6 one as a second link with the same name, and that of a bridge in the place of the link itself;
//   the events of wireless extensions, which carry the name of a link and nothing else;
//   IPv6 routes and addresses, which no query can ask for;
//   errors, such as the answer that a link asked for is gone: libnl would end the pass with it, as with an overrun.
// When the kernel does not take the filter, the socket works, and receives these, too.
void attachEventFilter(int descriptor);

// The same for a socket of which nothing but queueing disciplines and nexthop objects is wanted.
void attachNoticeFilter(int descriptor);

} // namespace netlink_route
