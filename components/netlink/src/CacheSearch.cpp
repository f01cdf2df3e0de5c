#include "CacheSearch.h"

#include "AddressText.h"

#include <linux/if_addr.h>
#include <sys/socket.h>
#include <tuple>

namespace netlink_route {

namespace {

// The kernel lists the addresses of a link in this order: primary before secondary ones, then by scope, the narrower
// one first (link before global; its number is higher), then as they were created, or promoted.
auto orderOf(rtnl_addr* address, bool isInOrder)
{
    return std::make_tuple(rtnl_addr_get_flags(address) & IFA_F_SECONDARY, -rtnl_addr_get_scope(address),
                           isInOrder ? 0U : rtnl_addr_get_create_time(address));
}

// The kernel lists table by table, in the order of its 256 hash buckets, and the routes of one destination by type of
// service from high to low, then by metric from low to high.
auto orderOfRoute(rtnl_route* route)
{
    return std::make_tuple(rtnl_route_get_table(route) % 256, -rtnl_route_get_tos(route),
                           rtnl_route_get_priority(route));
}

// The one that comes first of all objects that match, with a reference of its own, or null.
template <typename T, typename Matches, typename Order>
T* findFirst(nl_cache* cache, Matches matches, Order order)
{
    T* first = nullptr;
    nl_object* object = cache != nullptr ? nl_cache_get_first(cache) : nullptr;
    for (; object != nullptr; object = nl_cache_get_next(object)) {
        auto* const candidate = reinterpret_cast<T*>(object);
        if (matches(candidate) && (first == nullptr || order(candidate) < order(first))) {
            first = candidate;
        }
    }
    if (first != nullptr) {
        nl_object_get(reinterpret_cast<nl_object*>(first));
    }
    return first;
}

// The default route has two forms: libnl 3.7 keeps it as an address without bytes, later versions as 0.0.0.0/0.
bool isDefault(nl_addr* destination)
{
    return nl_addr_get_prefixlen(destination) == 0 && nl_addr_iszero(destination) != 0;
}

} // namespace

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

AddrPtr findIpv4(nl_cache* addresses, int index, bool isInOrder)
{
    auto const isOfLink = [index](rtnl_addr* address) {
        return rtnl_addr_get_ifindex(address) == index && rtnl_addr_get_family(address) == AF_INET;
    };
    auto const order = [isInOrder](rtnl_addr* address) { return orderOf(address, isInOrder); };
    return AddrPtr(findFirst<rtnl_addr>(addresses, isOfLink, order));
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

RoutePtr findRoute(nl_cache* routes, nl_addr* destination)
{
    bool const wantsDefault = isDefault(destination);
    auto const leadsThere = [&](rtnl_route* route) {
        nl_addr* const other = rtnl_route_get_dst(route);
        return other != nullptr && (nl_addr_cmp(other, destination) == 0 || (wantsDefault && isDefault(other)));
    };
    return RoutePtr(findFirst<rtnl_route>(routes, leadsThere, orderOfRoute));
}

} // namespace netlink_route
