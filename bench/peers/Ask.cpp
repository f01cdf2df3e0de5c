// The questions of scripts/bench.sh, asked of this library, and one of libnl alone, too:
//
//     netlink_route_ask query NAME...         a link with its address
//     netlink_route_ask update PAUSE          MTU and address of p, verified; microseconds between two updates
//     netlink_route_ask update-libnl PAUSE
//     netlink_route_ask readings PAUSE        how often the kernel was asked for a table in 1,000 of these updates
//     netlink_route_ask boot NAME...          brings each link, or VLAN of such a name, from nothing to address and route
//
// The first three print the median of the microseconds that the question took in one second.
#include "../Bare.h"

#include <CacheManager.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <linux/rtnetlink.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <vector>

namespace {

std::atomic<long> readings{0};

// Counts a message that asks for a table. Requests of other kinds use the same bits for other flags.
void count(void const* message)
{
    auto const* const header = static_cast<nlmsghdr const*>(message);
    bool const asks = (header->nlmsg_type - RTM_BASE) % 4 == 2; // each object has four: new, delete, get, set
    readings += asks && (header->nlmsg_flags & NLM_F_DUMP) == NLM_F_DUMP ? 1 : 0;
}

} // namespace

// These stand before the C library's, whose place the program's own symbols take: libnl and the library send with them.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): the header's names are reserved
extern "C" {
ssize_t sendmsg(int descriptor, msghdr const* message, int flags)
{
    static auto* const next = reinterpret_cast<decltype(&sendmsg)>(dlsym(RTLD_NEXT, "sendmsg"));
    count(message->msg_iov->iov_base);
    return next(descriptor, message, flags);
}

ssize_t sendto(int descriptor, void const* data, size_t size, int flags, sockaddr const* to, socklen_t length)
{
    static auto* const next = reinterpret_cast<decltype(&sendto)>(dlsym(RTLD_NEXT, "sendto"));
    count(data);
    return next(descriptor, data, size, flags, to, length);
}
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

namespace {

using Clock = std::chrono::steady_clock;
using Microseconds = std::chrono::microseconds;
using bench::Bare;
using netlink_route::Address;
using netlink_route::CacheManager;
using netlink_route::Interface;
using netlink_route::Route;
using netlink_route::Vlan;

void check(bool condition, char const* what)
{
    if (!condition) {
        std::fprintf(stderr, "not as expected: %s\n", what);
        std::exit(1);
    }
}

// Repeats the step for a second, with pauses, and prints the median of its times.
template <typename Step>
void measure(Microseconds pause, Step step)
{
    std::vector<double> times;
    auto const begin = Clock::now();
    while (Clock::now() < begin + std::chrono::seconds(1)) {
        auto const start = Clock::now();
        step(times.size());
        times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
        if (pause.count() > 0) {
            std::this_thread::sleep_for(pause);
        }
    }
    auto const middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
    std::nth_element(times.begin(), middle, times.end());
    std::printf("%.2f\n", *middle);
}

bool update(CacheManager& manager, unsigned int mtu, std::string const& address)
{
    Interface wanted("p");
    wanted.setUp();
    wanted.setMtu(mtu);
    wanted.addIp(Address(address, Address::IPV4), true);
    return manager.update(wanted, 5);
}

bool update(Bare& bare, unsigned int mtu, std::string const& address) { return bare.update("p", mtu, address); }

// Every other update wants the same.
template <typename Mirror>
void update(Mirror& mirror, std::size_t i)
{
    check(update(mirror, i % 2 == 0 ? 1400 : 1401, i % 2 == 0 ? "10.200.0.1/24" : "10.201.0.1/24"), "an update");
}

template <typename Mirror>
void measureUpdates(Microseconds pause)
{
    Mirror mirror;
    measure(pause, [&](std::size_t i) { update(mirror, i); });
}

void countReadings(Microseconds pause)
{
    constexpr std::chrono::milliseconds rest(200); // what is put off is read in it
    CacheManager manager;
    std::this_thread::sleep_for(rest);
    long const before = readings;
    check(before > 0, "a start that reads no table");
    for (std::size_t i = 0; i < 1000; ++i) {
        update(manager, i);
        std::this_thread::sleep_for(pause);
    }
    std::this_thread::sleep_for(rest);
    std::printf("%ld\n", readings - before);
}

template <typename Link>
bool bring(CacheManager& manager, Link link, std::string const& number)
{
    link.setUp();
    link.addIp(Address("10.100." + number + ".1/24", Address::IPV4), true);
    Route route(link.getName());
    route.setDestination(Address("10.101." + number + ".0/24", Address::IPV4));
    route.setGateway(Address("10.100." + number + ".2/32", Address::IPV4));
    return manager.update(link, 5) && manager.update(route, 5);
}

void boot(std::vector<std::string> const& names)
{
    CacheManager manager;
    for (std::size_t i = 0; i < names.size(); ++i) {
        bool const isVlan = names[i].find('.') != std::string::npos;
        std::string const number = std::to_string(i + 1);
        check(isVlan ? bring(manager, Vlan(names[i]), number) : bring(manager, Interface(names[i]), number),
              names[i].c_str());
    }
}

void query(std::vector<std::string> const& names)
{
    CacheManager const manager;
    measure(Microseconds(0), [&](std::size_t i) {
        check(manager.getInterface(names[i % names.size()]).getIps().size() == 1, "the addresses of a link");
    });
}

} // namespace

int main(int argumentCount, char** arguments)
{
    check(argumentCount > 2, "the number of arguments");
    std::string const question = arguments[1];
    std::vector<std::string> const names(arguments + 2, arguments + argumentCount);
    Microseconds const pause(std::atoi(arguments[2]));
    if (question == "query") {
        query(names);
    } else if (question == "update") {
        measureUpdates<CacheManager>(pause);
    } else if (question == "update-libnl") {
        measureUpdates<Bare>(pause);
    } else if (question == "readings") {
        countReadings(pause);
    } else {
        check(question == "boot", "the question");
        boot(names);
    }
    return 0;
}
