// The two questions of scripts/bench.sh, asked of this library.
#include <CacheManager.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using netlink_route::Address;
using netlink_route::CacheManager;
using netlink_route::Interface;

void check(bool condition)
{
    if (!condition) {
        std::puts("not as expected");
        std::exit(1);
    }
}

// Repeats the step for a second, and prints the median of its times.
template <typename Step>
void measure(char const* what, Step step)
{
    std::vector<double> times;
    auto const begin = Clock::now();
    while (Clock::now() < begin + std::chrono::seconds(1)) {
        auto const start = Clock::now();
        step(times.size());
        times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    auto const middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
    std::nth_element(times.begin(), middle, times.end());
    std::printf("%s %.2f\n", what, *middle);
}

} // namespace

int main(int count, char** arguments)
{
    std::vector<std::string> const names(arguments + 1, arguments + count);
    CacheManager manager;
    measure("query", [&](std::size_t i) { check(manager.getInterface(names[i % names.size()]).getIps().size() == 1); });
    measure("update", [&](std::size_t i) {
        Interface wanted("p");
        wanted.setUp();
        wanted.setMtu(i % 2 == 0 ? 1400 : 1401);
        wanted.addIp(Address(i % 2 == 0 ? "10.200.0.1/24" : "10.201.0.1/24", Address::IPV4), true);
        check(manager.update(wanted, 5));
    });
    return 0;
}
