#include "RouteKey.h"

#include <algorithm>
#include <cstring>

namespace netlink_route {

std::uint32_t ipv4Bytes(nl_addr* address)
{
    std::uint32_t bytes = 0;
    if (address != nullptr) {
        std::memcpy(&bytes, nl_addr_get_binary_addr(address), std::min<std::size_t>(nl_addr_get_len(address), 4));
    }
    return bytes;
}

std::uint64_t routeKey(rtnl_route* route)
{
    constexpr std::uint64_t prime = 1099511628211; // of the FNV-1a hash
    std::uint64_t key = ipv4Bytes(rtnl_route_get_dst(route));
    for (std::uint64_t const number :
         {std::uint64_t{nl_addr_get_prefixlen(rtnl_route_get_dst(route))}, std::uint64_t{rtnl_route_get_table(route)},
          std::uint64_t{rtnl_route_get_tos(route)}, std::uint64_t{rtnl_route_get_priority(route)}}) {
        key = (key ^ number) * prime;
    }
    return key;
}

} // namespace netlink_route
