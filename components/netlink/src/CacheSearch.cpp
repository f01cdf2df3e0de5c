#include "CacheSearch.h"

#include "AddressText.h"

#include <array>
#include <sys/socket.h>

namespace netlink_route {

LinkPtr findLink(nl_cache* links, std::string const& name)
{
    return LinkPtr(links != nullptr && !holdsNul(name) ? rtnl_link_get_by_name(links, name.c_str()) : nullptr);
}

std::vector<std::string> linkNames(nl_cache* links)
{
    std::vector<std::string> names;
    if (links == nullptr) {
        return names;
    }
    names.reserve(static_cast<std::size_t>(nl_cache_nitems(links)));
    for (nl_object* object = nl_cache_get_first(links); object != nullptr; object = nl_cache_get_next(object)) {
        char const* const name = rtnl_link_get_name(reinterpret_cast<rtnl_link*>(object));
        if (name != nullptr) {
            names.emplace_back(name);
        }
    }
    return names;
}

AddrPtr findIpv4(nl_cache* addresses, int index)
{
    AddrPtr const pattern(rtnl_addr_alloc());
    if (addresses == nullptr || pattern == nullptr) {
        return nullptr;
    }
    rtnl_addr_set_ifindex(pattern.get(), index);
    rtnl_addr_set_family(pattern.get(), AF_INET);
    nl_object* const found = nl_cache_find(addresses, reinterpret_cast<nl_object*>(pattern.get()));
    return AddrPtr(reinterpret_cast<rtnl_addr*>(found));
}

namespace {

RoutePtr findExactly(nl_cache* routes, nl_addr* destination)
{
    RoutePtr const pattern(rtnl_route_alloc());
    if (routes == nullptr || pattern == nullptr) {
        return nullptr;
    }
    rtnl_route_set_dst(pattern.get(), destination);
    nl_object* const found = nl_cache_find(routes, reinterpret_cast<nl_object*>(pattern.get()));
    return RoutePtr(reinterpret_cast<rtnl_route*>(found));
}

// The other form of the default route, or null: libnl 3.7 keeps it as an address without bytes, later versions as
// 0.0.0.0/0.
NlAddrPtr otherDefault(nl_addr* destination)
{
    if (nl_addr_get_prefixlen(destination) != 0 || nl_addr_iszero(destination) == 0) {
        return nullptr;
    }
    std::array<unsigned char, 4> const zeros{};
    NlAddrPtr other(nl_addr_build(AF_INET, zeros.data(), nl_addr_get_len(destination) == 0 ? zeros.size() : 0));
    if (other != nullptr) {
        nl_addr_set_prefixlen(other.get(), 0);
    }
    return other;
}

} // namespace

RoutePtr findRoute(nl_cache* routes, nl_addr* destination)
{
    RoutePtr found = findExactly(routes, destination);
    if (found == nullptr) {
        if (NlAddrPtr const other = otherDefault(destination); other != nullptr) {
            found = findExactly(routes, other.get());
        }
    }
    return found;
}

bool hasNeighbour(nl_cache* addresses, rtnl_addr* address)
{
    for (nl_object* object = nl_cache_get_first(addresses); object != nullptr; object = nl_cache_get_next(object)) {
        auto* const other = reinterpret_cast<rtnl_addr*>(object);
        if (other != address && rtnl_addr_get_ifindex(other) == rtnl_addr_get_ifindex(address)) {
            return true;
        }
    }
    return false;
}

} // namespace netlink_route
