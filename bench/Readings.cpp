// What it costs to keep the caches true where the kernel drops routes without a word: processor time of the manager's
// thread, beside large tables of routes, and the time until such a route has left the cache.
#include "Kernel.h"

#include <CacheManager.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
using netlink_route::Address;
using netlink_route::CacheManager;

double clockSeconds(clockid_t clock)
{
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

// Of all threads of this process but this one.
double managerSeconds() { return clockSeconds(CLOCK_PROCESS_CPUTIME_ID) - clockSeconds(CLOCK_THREAD_CPUTIME_ID); }

// Until the manager's thread has had nothing to do for so long that no reading can be put off any more.
void waitForQuiet()
{
    double before = -1;
    while (managerSeconds() - before > 0.001) {
        before = managerSeconds();
        std::this_thread::sleep_for(std::chrono::seconds(12));
    }
}

bool has(CacheManager const& manager, std::string const& destination)
{
    return manager.getRoute(Address(destination, Address::IPV4)).isAddedToKernel();
}

void measureRemovals(long routes)
{
    double const before = managerSeconds();
    for (long i = 0; i < 40; ++i) {
        bench::run("ip route delete " + bench::routeText(i));
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    waitForQuiet();
    std::printf("40 removals of a route beside %ld: %.3f s of processor time\n", routes, managerSeconds() - before);
}

void measureFlaps(long routes)
{
    constexpr int flaps = 10;
    double const before = managerSeconds();
    auto const begin = Clock::now();
    for (int i = 0; i < flaps; ++i) {
        bench::run("ip link set r down; ip link set r up; ip route add 40.0.0.0/24 dev r");
        std::this_thread::sleep_until(begin + std::chrono::seconds(i + 1));
    }
    waitForQuiet();
    double const used = managerSeconds() - before;
    std::printf("a link that flaps once a second beside %ld routes: %.1f %% of a processor\n", routes,
                100 * used / flaps);
}

void measureSilentRemoval(CacheManager const& manager, long routes)
{
    auto const deadline = Clock::now() + std::chrono::minutes(1);
    std::string const destination = "40.0.0.0/24";
    while (!has(manager, destination) && Clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    bench::run("ip link set r down");
    auto const begin = Clock::now();
    while (has(manager, destination) && Clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::chrono::duration<double> const time = Clock::now() - begin;
    std::printf("a route that went with its link beside %ld: %s after %.3f s\n", routes,
                has(manager, destination) ? "STILL THERE" : "gone", time.count());
}

void measure(long routes)
{
    bench::enter(bench::makeRoutes, routes);
    bench::run("ip link add r type veth peer name s; ip link set s up; ip link set r up; "
               "ip route add 40.0.0.0/24 dev r; sleep 2"); // the kernel notifies a carrier up to a second late
    double const before = managerSeconds();
    CacheManager const manager;
    waitForQuiet();
    std::printf("after the start beside %ld routes: %.3f s of processor time\n", routes, managerSeconds() - before);
    measureRemovals(routes);
    measureFlaps(routes);
    measureSilentRemoval(manager, routes);
}

} // namespace

int main()
{
    for (long const routes : {20000L, 100000L}) {
        measure(routes);
        std::fflush(stdout);
    }
    return 0;
}
