// What a start, a stop and an update cost, beside the same work written directly over libnl (Bare.h); the parts of an
// update; and a log statement that the trace level keeps closed.
#include "Bare.h"
#include "Kernel.h"
#include "NetlinkPtr.h"
#include "Trace.h"

#include <CacheManager.h>

#include <benchmark/benchmark.h>
#include <chrono>
#include <linux/netlink.h>
#include <memory>
#include <stdexcept>
#include <sys/socket.h>

namespace {

using bench::Bare;
using netlink_route::Address;
using netlink_route::CacheManager;
using netlink_route::Interface;

// ---- Start and stop ----

template <typename Function>
double secondsOf(Function function)
{
    auto const begin = std::chrono::steady_clock::now();
    function();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

// The kernel keeps the machine's netlink sockets in one hash table. Between two of its sizes it would grow in each start,
// for 20 us, and shrink in each stop; with 64 more it does neither.
void keepSocketsOpen()
{
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    for (static int count = 0; count < 64; ++count) {
        int const descriptor = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
        if (bind(descriptor, reinterpret_cast<sockaddr const*>(&local), sizeof local) != 0) {
            throw std::runtime_error("cannot open that many sockets");
        }
    }
}

template <typename Mirror>
void start(benchmark::State& state, bench::Make make, long count)
{
    bench::enter(make, count);
    keepSocketsOpen();
    for (auto _ : state) {
        std::unique_ptr<Mirror> mirror;
        state.SetIterationTime(secondsOf([&] { mirror = std::make_unique<Mirror>(); }));
    }
}

template <typename Mirror>
void stop(benchmark::State& state, bench::Make make, long count)
{
    bench::enter(make, count);
    for (auto _ : state) {
        auto mirror = std::make_unique<Mirror>();
        state.SetIterationTime(secondsOf([&] { mirror.reset(); }));
    }
}

// ---- An update and its parts ----

// Namespaces that nobody else mirrors.
void makeLinksToChange(long count) { bench::makeLinks(count); }

constexpr auto changed = "m1";

// Every other value is the same.
unsigned int mtuOf(long i) { return 1400 + static_cast<unsigned int>(i % 2); }
std::string addressOf(long i) { return i % 2 == 0 ? "10.200.0.1/24" : "10.201.0.1/24"; }

void update(CacheManager& manager, long i)
{
    Interface wanted(changed);
    wanted.setMtu(mtuOf(i));
    wanted.addIp(Address(addressOf(i), Address::IPV4), true);
    benchmark::DoNotOptimize(manager.update(wanted, 5));
}

void update(Bare& bare, long i) { benchmark::DoNotOptimize(bare.update(changed, mtuOf(i), addressOf(i))); }

void changeAddress(CacheManager& manager, long i)
{
    int const index = manager.getInterface(changed).getIndex();
    manager.add(Address("10.202.0.1/24", Address::IPV4), index);
    manager.remove(Address("10.202.0.1/24", Address::IPV4), index);
    benchmark::DoNotOptimize(i);
}

template <typename Mirror, typename Step>
void repeat(benchmark::State& state, long count, Step step)
{
    bench::enter(makeLinksToChange, count);
    Mirror mirror;
    long i = 0;
    for (auto _ : state) {
        step(mirror, ++i);
    }
}

void convert(benchmark::State& state)
{
    Interface wanted(changed);
    wanted.setMtu(1400);
    for (auto _ : state) {
        netlink_route::LinkPtr const link(CacheManager::convertToLink(wanted));
        benchmark::DoNotOptimize(link.get());
    }
}

void compareLinks(benchmark::State& state)
{
    Interface wanted(changed);
    wanted.setMac(Address("00:11:22:33:44:55", Address::MAC));
    Interface const found = wanted;
    for (auto _ : state) {
        benchmark::DoNotOptimize(wanted == found);
    }
}

void openSocket(benchmark::State& state)
{
    for (auto _ : state) {
        benchmark::DoNotOptimize(netlink_route::RouteSocket().getSocket());
    }
}

// ---- Log statement ----

void closedLogStatement(benchmark::State& state)
{
    int number = 0;
    for (auto _ : state) {
        TRACE_DEBUG2("number %d", number);
        ++number;
    }
}

bool const registered = [] {
    auto const add = [](std::string const& name, auto measure) {
        return benchmark::RegisterBenchmark(name.c_str(), measure);
    };
    auto const startAndStop = [&](std::string const& objects, bench::Make make, long count) {
        auto const with = [=](auto function) { return [=](benchmark::State& state) { function(state, make, count); }; };
        add("start/" + objects + "/library", with(start<CacheManager>))->UseManualTime();
        add("start/" + objects + "/libnl", with(start<Bare>))->UseManualTime();
        add("stop/" + objects + "/library", with(stop<CacheManager>))->UseManualTime();
        add("stop/" + objects + "/libnl", with(stop<Bare>))->UseManualTime();
    };
    startAndStop("10 links", bench::makeLinks, 10);
    startAndStop("1000 links", bench::makeLinks, 1000);
    startAndStop("20000 routes", bench::makeRoutes, 20000);
    for (long const count : {10L, 1000L}) {
        std::string const links = std::to_string(count);
        auto const library = [=](benchmark::State& state) {
            repeat<CacheManager>(state, count, [](CacheManager& manager, long i) { update(manager, i); });
        };
        auto const bare = [=](benchmark::State& state) {
            repeat<Bare>(state, count, [](Bare& plain, long i) { update(plain, i); });
        };
        auto const address = [=](benchmark::State& state) { repeat<CacheManager>(state, count, changeAddress); };
        add("update/" + links + "/library", library)->UseRealTime();
        add("update/" + links + "/libnl", bare)->UseRealTime();
        add("part: add and remove an address/" + links + "/library", address)->UseRealTime();
    }
    add("part: convert a link/1/library", convert);
    add("part: compare two links/1/library", compareLinks);
    add("part: open a socket/1/library", openSocket);
    add("closed log statement/1/library", closedLogStatement);
    return true;
}();

} // namespace
