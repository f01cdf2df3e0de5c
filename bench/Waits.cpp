// How long queries wait while the kernel is flooded with new objects by `ip -batch`: the median, the 99.9th percentile
// and the worst; and, which no noise of the machine changes, how many objects were applied to the caches meanwhile.
// Each flood has a network namespace and a manager of its own.
#include "Kernel.h"

#include <CacheManager.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <dlfcn.h>
#include <functional>
#include <netlink/cache.h>
#include <thread>
#include <vector>

namespace {

std::atomic<long> applied{0};
thread_local bool applying = false; // libnl applies an object through functions that count, too

template <typename Function, typename... Arguments>
int count(char const* name, Arguments... arguments)
{
    auto const next = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
    bool const outermost = !applying;
    applied += outermost ? 1 : 0;
    applying = true;
    int const result = next(arguments...);
    applying = !outermost;
    return result;
}

} // namespace

// These stand before libnl's, whose place the program's own symbols take: what an event changes, and what a reading.
extern "C" {
int nl_cache_include(nl_cache* cache, nl_object* object, change_func_t callback, void* data)
{
    return count<decltype(nl_cache_include)>("nl_cache_include", cache, object, callback, data);
}

int nl_cache_include_v2(nl_cache* cache, nl_object* object, change_func_v2_t callback, void* data)
{
    return count<decltype(nl_cache_include_v2)>("nl_cache_include_v2", cache, object, callback, data);
}

int nl_cache_move(nl_cache* cache, nl_object* object)
{
    return count<decltype(nl_cache_move)>("nl_cache_move", cache, object);
}
}

namespace {

using Clock = std::chrono::steady_clock;

struct Flood {
    char const* name;
    long count;
    std::string (*line)(long i); // for `ip -batch`
};

std::string route(long i) { return "route add " + bench::routeText(i) + " via 10.0.0.2\n"; }

std::string link(long i) { return "link add link q name " + bench::linkName(i) + " type macvlan\n"; }

std::string address(long i)
{
    return "address add 30." + std::to_string(i / 250) + "." + std::to_string(i % 250) + ".1/24 dev q\n";
}

// With a link that goes down and up, whose routes the kernel drops without a word.
std::string routeAndFlap(long i)
{
    std::string const flap = "link set r down\nlink set r up\nroute add 40.0.0.0/24 dev r\n";
    return (i % 1000 == 0 ? flap : "") + route(i);
}

struct Wait {
    double milliseconds;
    long objects;
};

// Asks until told to stop.
std::vector<Wait> query(netlink_route::CacheManager const& manager, int index, std::atomic<bool> const& stop)
{
    std::vector<Wait> waits;
    while (!stop) {
        long const before = applied;
        auto const start = Clock::now();
        manager.getIps(index);
        std::chrono::duration<double, std::milli> const time = Clock::now() - start;
        waits.push_back({time.count(), applied - before});
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return waits;
}

// Has `ip` make the objects, as fast as it can or that many a second.
void pour(Flood const& flood, long rate)
{
    FILE* const pipe = popen("ip -force -batch - 2>/dev/null", "w"); // NOLINT
    auto const begin = Clock::now();
    for (long i = 0; i < flood.count; ++i) {
        std::fputs(flood.line(i).c_str(), pipe);
        if (rate != 0 && i % 10 == 0) {
            std::fflush(pipe);
            std::this_thread::sleep_until(begin + std::chrono::microseconds(i * 1000000 / rate));
        }
    }
    pclose(pipe);
}

template <typename Value>
void print(std::vector<Wait>& waits, Value Wait::*value, int digits)
{
    auto const less = [=](Wait const& lhs, Wait const& rhs) { return lhs.*value < rhs.*value; };
    std::sort(waits.begin(), waits.end(), less);
    for (std::size_t const index : {waits.size() / 2, waits.size() * 999 / 1000, waits.size() - 1}) {
        std::printf(" %9.*f", digits, static_cast<double>(waits[index].*value));
    }
}

void measure(Flood const& flood, long rate, int threads)
{
    bench::enterNew();
    bench::run("ip address add 10.0.0.1/24 dev p; ip link set p up; ip link add r type veth peer name s; "
               "ip link set s up; ip link set r up");
    netlink_route::CacheManager const manager;
    int const index = manager.getInterface("p").getIndex();
    std::atomic<bool> stop{false};
    std::vector<std::vector<Wait>> results(static_cast<std::size_t>(threads));
    std::vector<std::thread> asking;
    for (std::vector<Wait>& result : results) {
        asking.emplace_back([&] { result = query(manager, index, stop); });
    }
    pour(flood, rate);
    std::this_thread::sleep_for(std::chrono::seconds(1)); // what is left to apply, or to read
    stop = true;
    for (std::thread& thread : asking) {
        thread.join();
    }
    std::vector<Wait> waits;
    for (std::vector<Wait> const& result : results) {
        waits.insert(waits.end(), result.begin(), result.end());
    }
    std::string const many = rate == 0 ? "unlimited" : std::to_string(rate) + "/s";
    std::printf("%-16s %6ld %10s %8d %8zu", flood.name, flood.count, many.c_str(), threads, waits.size());
    print(waits, &Wait::milliseconds, 3);
    print(waits, &Wait::objects, 0);
    std::puts("");
    std::fflush(stdout);
}

} // namespace

int main()
{
    std::puts("                                                    wait of a query, milliseconds  "
              "objects applied meanwhile\n"
              "flood of          count       rate  threads  queries    median    99.9 %     worst"
              "    median    99.9 %     worst");
    std::vector<Flood> const floods{{"routes", 20000, route},
                                    {"routes, flapping", 20000, routeAndFlap},
                                    {"links", 2000, link},
                                    {"addresses", 5000, address}};
    for (Flood const& flood : floods) {
        for (long const rate : {0L, 2000L}) {
            for (int const threads : {1, 4}) {
                measure(flood, rate, threads);
            }
        }
    }
    return 0;
}
