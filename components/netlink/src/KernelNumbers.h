// Numbers of the kernel's interface that the headers of Linux before 5.3 do not name yet.
#pragma once

namespace netlink_route {

constexpr unsigned short newNexthop = 104; // RTM_NEWNEXTHOP
constexpr unsigned short getNexthop = 106; // RTM_GETNEXTHOP
constexpr int nexthopGroup = 32;           // RTNLGRP_NEXTHOP

} // namespace netlink_route
