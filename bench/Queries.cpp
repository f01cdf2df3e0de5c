// What a query costs, beside the search in libnl's cache that it needs anyway, on a kernel with that many links or
// routes. Run as root: it works in a network namespace that it makes.
#include <CacheManager.h>

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <memory>
#include <netlink/cache.h>
#include <netlink/route/addr.h>
#include <netlink/route/link.h>
#include <netlink/route/route.h>
#include <netlink/socket.h>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using netlink_route::Address;
using netlink_route::CacheManager;

void run(const std::string& command)
{
    if (std::system(command.c_str()) != 0) {
        throw std::runtime_error("failed: " + command);
    }
}

void enterNewNamespace()
{
    if (unshare(CLONE_NEWNET) != 0) {
        throw std::runtime_error("this needs the right to make a network namespace");
    }
}

void makeLinks(long count)
{
    enterNewNamespace();
    run("ip link add p type veth peer name q; for i in $(seq " + std::to_string(count) +
        "); do echo link add link p name m$i type macvlan; "
        "echo address add 10.$((i / 250)).$((i % 250)).1/24 dev m$i; done | ip -batch -");
}

void makeRoutes(long count)
{
    enterNewNamespace();
    run("ip link add p type veth peer name q; ip address add 10.0.0.1/24 dev p; ip link set p up; "
        "for i in $(seq 0 " +
        std::to_string(count - 1) +
        "); do echo route add 20.$((i / 250)).$((i % 250)).0/24 via 10.0.0.2; done | ip -batch -");
}

// libnl's own cache of the same kernel.
class PlainCache {
public:
    explicit PlainCache(const char* name) : socket(nl_socket_alloc(), nl_socket_free)
    {
        nl_cache* filled = nullptr;
        if (nl_connect(socket.get(), 0) < 0 || nl_cache_alloc_name(name, &filled) < 0 ||
            nl_cache_refill(socket.get(), filled) < 0) {
            throw std::runtime_error("libnl cannot read the kernel");
        }
        cache.reset(filled);
    }
    nl_cache* get() { return cache.get(); }

private:
    std::unique_ptr<nl_sock, decltype(&nl_socket_free)> socket;
    std::unique_ptr<nl_cache, decltype(&nl_cache_free)> cache{nullptr, nl_cache_free};
};

std::string linkName(long i) { return "m" + std::to_string(i + 1); }
std::string routeText(long i) { return "20." + std::to_string(i / 250) + "." + std::to_string(i % 250) + ".0/24"; }

// Keys from all over the table, in an order without locality.
class Keys {
public:
    explicit Keys(long howMany) : count(howMany) {}
    long next() { return position = (position + 7919) % count; }

private:
    long count;
    long position = 0;
};

void linkInLibnl(benchmark::State& state)
{
    makeLinks(state.range(0));
    PlainCache links("route/link");
    Keys keys(state.range(0));
    for (auto _ : state) {
        rtnl_link_put(rtnl_link_get_by_name(links.get(), linkName(keys.next()).c_str()));
    }
}
BENCHMARK(linkInLibnl)->Arg(10)->Arg(1000);

void linkQuery(benchmark::State& state)
{
    makeLinks(state.range(0));
    const CacheManager manager;
    Keys keys(state.range(0));
    for (auto _ : state) {
        benchmark::DoNotOptimize(manager.getInterface(linkName(keys.next())));
    }
}
BENCHMARK(linkQuery)->Arg(10)->Arg(1000);

void routeInLibnl(benchmark::State& state)
{
    makeRoutes(state.range(0));
    PlainCache routes("route/route");
    Keys keys(state.range(0));
    for (auto _ : state) {
        nl_addr* destination = nullptr;
        nl_addr_parse(routeText(keys.next()).c_str(), AF_INET, &destination);
        rtnl_route* const filter = rtnl_route_alloc();
        rtnl_route_set_dst(filter, destination);
        nl_object_put(nl_cache_find(routes.get(), OBJ_CAST(filter)));
        rtnl_route_put(filter);
        nl_addr_put(destination);
    }
}
BENCHMARK(routeInLibnl)->Arg(10)->Arg(20000);

void routeQuery(benchmark::State& state)
{
    makeRoutes(state.range(0));
    const CacheManager manager;
    Keys keys(state.range(0));
    for (auto _ : state) {
        benchmark::DoNotOptimize(manager.getRoute(Address(routeText(keys.next()), Address::IPV4)));
    }
}
BENCHMARK(routeQuery)->Arg(10)->Arg(20000);

} // namespace

BENCHMARK_MAIN();
