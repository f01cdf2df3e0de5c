// What a start and a stop cost, beside the same work written directly over libnl (Bare.h); and a log statement that the
// trace level keeps closed.
#include "Bare.h"
#include "Kernel.h"
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
using netlink_route::CacheManager;

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
    add("closed log statement/1/library", closedLogStatement);
    return true;
}();

} // namespace
