// Owning pointers for libnl's objects: each releases its one reference with libnl's own function.
#pragma once

#include <memory>
#include <netlink/addr.h>
#include <netlink/cache.h>
#include <netlink/route/addr.h>
#include <netlink/route/link.h>
#include <netlink/route/nexthop.h>
#include <netlink/route/route.h>
#include <netlink/socket.h>
#include <vector>

namespace netlink_route {

template <auto release>
struct Release {
    template <typename T>
    void operator()(T* object) const
    {
        release(object);
    }
};

using SocketPtr = std::unique_ptr<nl_sock, Release<nl_socket_free>>;
using ObjectPtr = std::unique_ptr<nl_object, Release<nl_object_put>>;
using NlAddrPtr = std::unique_ptr<nl_addr, Release<nl_addr_put>>;
using LinkPtr = std::unique_ptr<rtnl_link, Release<rtnl_link_put>>;
using AddrPtr = std::unique_ptr<rtnl_addr, Release<rtnl_addr_put>>;
using RoutePtr = std::unique_ptr<rtnl_route, Release<rtnl_route_put>>;
using NextHopPtr = std::unique_ptr<rtnl_nexthop, Release<rtnl_route_nh_free>>;

using Objects = std::vector<ObjectPtr>;

} // namespace netlink_route
