#include "Bare.h"

#include <array>
#include <chrono>
#include <linux/if.h>
#include <netlink/cache.h>
#include <netlink/route/addr.h>
#include <netlink/route/link.h>
#include <netlink/route/link/vlan.h>
#include <netlink/route/nexthop.h>
#include <netlink/route/route.h>
#include <netlink/socket.h>
#include <poll.h>
#include <stdexcept>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace bench {

namespace {

std::string textOf(nl_addr* address)
{
    std::array<char, 100> text{};
    return address != nullptr ? nl_addr2str(address, text.data(), text.size()) : "";
}

std::string textOf(char const* text) { return text != nullptr ? text : ""; }

void require(bool condition)
{
    if (!condition) {
        throw std::runtime_error("libnl cannot do it");
    }
}

Bare::Link convert(rtnl_link* link)
{
    Bare::Link result;
    result.name = textOf(rtnl_link_get_name(link));
    result.index = rtnl_link_get_ifindex(link);
    result.group = rtnl_link_get_group(link);
    result.mac = textOf(rtnl_link_get_addr(link));
    result.broadcast = textOf(rtnl_link_get_broadcast(link));
    result.mtu = rtnl_link_get_mtu(link);
    result.txQueueLength = rtnl_link_get_txqlen(link);
    result.alias = textOf(rtnl_link_get_ifalias(link));
    result.arpType = rtnl_link_get_arptype(link);
    result.queueingDiscipline = textOf(rtnl_link_get_qdisc(link));
    result.promiscuity = rtnl_link_get_promiscuity(link);
    result.txQueues = rtnl_link_get_num_tx_queues(link);
    result.rxQueues = rtnl_link_get_num_rx_queues(link);
    result.dormant = rtnl_link_get_linkmode(link) == IF_LINK_MODE_DORMANT;
    result.up = (rtnl_link_get_flags(link) & IFF_UP) != 0;
    return result;
}

Bare::Route convert(rtnl_route* route)
{
    Bare::Route result;
    result.scope = rtnl_route_get_scope(route);
    result.table = rtnl_route_get_table(route);
    result.protocol = rtnl_route_get_protocol(route);
    result.tos = rtnl_route_get_tos(route);
    result.priority = rtnl_route_get_priority(route);
    result.family = rtnl_route_get_family(route);
    result.type = rtnl_route_get_type(route);
    result.destination = textOf(rtnl_route_get_dst(route));
    result.source = textOf(rtnl_route_get_src(route));
    result.preferred = textOf(rtnl_route_get_pref_src(route));
    for (int i = 0; i < rtnl_route_get_nnexthops(route); ++i) {
        std::string gateway = textOf(rtnl_route_nh_get_gateway(rtnl_route_nexthop_n(route, i)));
        if (i == 0) {
            result.gateway = std::move(gateway);
        } else {
            result.hops.push_back(std::move(gateway));
        }
    }
    return result;
}

} // namespace

Bare::Bare()
{
    require(nl_cache_mngr_alloc(nullptr, NETLINK_ROUTE, 0, &manager) == 0);
    int const bytes = 8 * 1024 * 1024;
    setsockopt(nl_cache_mngr_get_fd(manager), SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes);
    require(nl_cache_mngr_add(manager, "route/link", nullptr, nullptr, &links) == 0);
    require(nl_cache_mngr_add(manager, "route/route", nullptr, nullptr, &routes) == 0);
    require(nl_cache_mngr_add(manager, "route/addr", nullptr, nullptr, &addresses) == 0);
    requests = nl_socket_alloc();
    require(nl_connect(requests, NETLINK_ROUTE) == 0);
    wake = eventfd(0, EFD_CLOEXEC);
    thread = std::thread([this] { follow(); });
}

Bare::~Bare()
{
    eventfd_write(wake, 1);
    thread.join();
    close(wake);
    nl_socket_free(requests);
    nl_cache_mngr_free(manager);
}

void Bare::follow()
{
    std::array<pollfd, 2> records{{{nl_cache_mngr_get_fd(manager), POLLIN, 0}, {wake, POLLIN, 0}}};
    while (poll(records.data(), records.size(), -1) >= 0 && records[1].revents == 0) {
        std::lock_guard<std::mutex> const lock(mutex);
        nl_cache_mngr_data_ready(manager);
    }
}

std::vector<std::string> Bare::findIps(int index)
{
    std::vector<std::string> result;
    rtnl_addr* const filter = rtnl_addr_alloc();
    rtnl_addr_set_ifindex(filter, index);
    rtnl_addr_set_family(filter, AF_INET);
    auto* const found = reinterpret_cast<rtnl_addr*>(nl_cache_find(addresses, OBJ_CAST(filter)));
    if (found != nullptr) {
        result.push_back(textOf(rtnl_addr_get_local(found)));
        rtnl_addr_put(found);
    }
    rtnl_addr_put(filter);
    return result;
}

std::vector<std::string> Bare::getIps(int index)
{
    std::lock_guard<std::mutex> const lock(mutex);
    return findIps(index);
}

Bare::Link Bare::getLink(std::string const& name) { return readLink(name, false); }

Bare::Link Bare::getVlan(std::string const& name) { return readLink(name, true); }

Bare::Link Bare::readLink(std::string const& name, bool asVlan)
{
    std::lock_guard<std::mutex> const lock(mutex);
    rtnl_link* const found = rtnl_link_get_by_name(links, name.c_str());
    require(found != nullptr);
    Link result = convert(found);
    if (asVlan) {
        result.vlanId = rtnl_link_is_vlan(found) != 0 ? rtnl_link_vlan_get_id(found) : -1;
    }
    rtnl_link_put(found);
    result.ips = findIps(result.index);
    return result;
}

std::vector<std::string> Bare::getNames()
{
    std::lock_guard<std::mutex> const lock(mutex);
    std::vector<std::string> result;
    for (nl_object* object = nl_cache_get_first(links); object != nullptr; object = nl_cache_get_next(object)) {
        result.push_back(textOf(rtnl_link_get_name(reinterpret_cast<rtnl_link*>(object))));
    }
    return result;
}

Bare::Route Bare::getRoute(std::string const& destination)
{
    std::lock_guard<std::mutex> const lock(mutex);
    nl_addr* address = nullptr;
    require(nl_addr_parse(destination.c_str(), AF_INET, &address) == 0);
    rtnl_route* const filter = rtnl_route_alloc();
    rtnl_route_set_dst(filter, address);
    auto* const found = reinterpret_cast<rtnl_route*>(nl_cache_find(routes, OBJ_CAST(filter)));
    rtnl_route_put(filter);
    nl_addr_put(address);
    require(found != nullptr);
    Route result = convert(found);
    rtnl_route_put(found);
    return result;
}

bool Bare::update(std::string const& name, unsigned int mtu, std::string const& address)
{
    Link const current = getLink(name);
    rtnl_link* const change = rtnl_link_alloc();
    rtnl_link_set_ifindex(change, current.index);
    rtnl_link_set_mtu(change, mtu);
    bool done = rtnl_link_change(requests, change, change, 0) == 0;
    rtnl_link_put(change);
    auto const send = [&](std::string const& text, int (*request)(nl_sock*, rtnl_addr*, int)) {
        nl_addr* local = nullptr;
        require(nl_addr_parse(text.c_str(), AF_INET, &local) == 0);
        rtnl_addr* const object = rtnl_addr_alloc();
        rtnl_addr_set_local(object, local);
        rtnl_addr_set_ifindex(object, current.index);
        int const result = request(requests, object, 0);
        rtnl_addr_put(object);
        nl_addr_put(local);
        return result == 0;
    };
    for (std::string const& old : current.ips) {
        done = send(old, rtnl_addr_delete) && done;
    }
    done = send(address, rtnl_addr_add) && done;
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (done && std::chrono::steady_clock::now() < deadline) {
        Link const found = getLink(name);
        if (found.mtu == mtu && found.ips == std::vector<std::string>{address}) {
            return true;
        }
        std::this_thread::yield();
    }
    return false;
}

} // namespace bench
