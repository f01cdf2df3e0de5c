// Numbers of the kernel's interface that the headers of older kernels do not name.
#pragma once

namespace netlink_route {

constexpr unsigned short newNexthop = 104; // RTM_NEWNEXTHOP, Linux 5.3
constexpr unsigned short getNexthop = 106; // RTM_GETNEXTHOP
constexpr int nexthopGroup = 32;           // RTNLGRP_NEXTHOP
constexpr int strictCheck = 12;            // NETLINK_GET_STRICT_CHK, Linux 4.20

// In rtnetlink the type of a message that says "deleted" is the type of that which says "new", and one more. With this
// mask both become "new".
constexpr unsigned short newOrDeleted = 0xFFFE;

} // namespace netlink_route
