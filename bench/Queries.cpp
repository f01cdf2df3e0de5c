// What the queries cost, beside the same work written directly over libnl (Bare.h), on the same kernel objects.
#include "Bare.h"
#include "Kernel.h"

#include <CacheManager.h>

#include <benchmark/benchmark.h>
#include <map>
#include <memory>
#include <stdexcept>
#include <utility>

namespace {

using bench::Bare;
using bench::linkName;
using bench::routeText;
using netlink_route::Address;
using netlink_route::CacheManager;

// Both mirrors of a namespace.
struct Mirrors {
    explicit Mirrors(long count) : keys(count) {}

    bench::Keys keys;
    CacheManager manager;
    Bare bare;
    std::vector<int> indexes; // of the links
};

// Both mirrors must tell the same, or there is nothing to compare.
void check(Mirrors& mirrors, bench::Make make)
{
    bool same = mirrors.manager.getListOfInterfaces() == mirrors.bare.getNames();
    for (int i = 0; i < 10; ++i) {
        long const key = mirrors.keys.next();
        if (make == bench::makeLinks) {
            auto const link = mirrors.manager.getInterface(linkName(key));
            Bare::Link const plain = mirrors.bare.getLink(linkName(key));
            same = same && link.getIndex() == plain.index && link.getMac().getAddress() == plain.mac &&
                   link.getIps().at(0).getAddress() == plain.ips.at(0);
        } else {
            auto const route = mirrors.manager.getRoute(Address(routeText(key), Address::IPV4));
            Bare::Route const plain = mirrors.bare.getRoute(routeText(key));
            same = same && route.getDestination().getAddress() == plain.destination && route.getTable() == plain.table;
        }
    }
    if (!same) {
        throw std::runtime_error("the mirrors differ");
    }
}

// Made when they are asked for first, and kept.
Mirrors& mirrorsOf(bench::Make make, long count)
{
    static std::map<std::pair<bench::Make, long>, std::unique_ptr<Mirrors>> all;
    std::unique_ptr<Mirrors>& mirrors = all[{make, count}];
    if (mirrors == nullptr) {
        bench::enter(make, count);
        mirrors = std::make_unique<Mirrors>(count);
        for (long i = 0; make == bench::makeLinks && i < count; ++i) {
            mirrors->indexes.push_back(mirrors->bare.getLink(linkName(i)).index);
        }
        check(*mirrors, make);
    }
    return *mirrors;
}

// Measures the question with keys from all over the table.
template <typename Ask>
void compare(std::string const& query, char const* who, bench::Make make, std::vector<long> const& sizes, Ask ask)
{
    for (long const size : sizes) {
        auto const measure = [=](benchmark::State& state) {
            Mirrors& mirrors = mirrorsOf(make, size);
            for (auto _ : state) {
                benchmark::DoNotOptimize(ask(mirrors, mirrors.keys.next()));
            }
        };
        benchmark::RegisterBenchmark((query + "/" + std::to_string(size) + "/" + who).c_str(), measure);
    }
}

template <typename Library, typename Plain>
void compare(std::string const& query, bench::Make make, std::vector<long> const& sizes, Library library, Plain plain)
{
    compare(query, "library", make, sizes, library);
    compare(query, "libnl", make, sizes, plain);
}

bool const registered = [] {
    std::vector<long> const links{10, 100, 1000, 5000};
    std::vector<long> const routes{100, 2000, 20000};
    compare(
        "getIps", bench::makeLinks, links,
        [](Mirrors& of, long i) { return of.manager.getIps(of.indexes[static_cast<std::size_t>(i)]); },
        [](Mirrors& of, long i) { return of.bare.getIps(of.indexes[static_cast<std::size_t>(i)]); });
    compare(
        "getInterface", bench::makeLinks, links,
        [](Mirrors& of, long i) { return of.manager.getInterface(linkName(i)); },
        [](Mirrors& of, long i) { return of.bare.getLink(linkName(i)); });
    compare(
        "getVlan", bench::makeLinks, links, [](Mirrors& of, long i) { return of.manager.getVlan(linkName(i)); },
        [](Mirrors& of, long i) { return of.bare.getVlan(linkName(i)); });
    compare(
        "getListOfInterfaces", bench::makeLinks, links,
        [](Mirrors& of, long /*i*/) { return of.manager.getListOfInterfaces(); },
        [](Mirrors& of, long /*i*/) { return of.bare.getNames(); });
    compare(
        "getRoute", bench::makeRoutes, routes,
        [](Mirrors& of, long i) { return of.manager.getRoute(Address(routeText(i), Address::IPV4)); },
        [](Mirrors& of, long i) { return of.bare.getRoute(routeText(i)); });
    return true;
}();

} // namespace

BENCHMARK_MAIN();
