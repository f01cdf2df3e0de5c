// Runs the shell commands that it reads, one a line, and waits after each until the kernel has been quiet for two
// seconds. Tells how long after the last change the manager answered as the kernel and as a new manager do: a second
// is too long. For changes that others make; see scripts/daemons.sh.
#include "Support.h"

#include <cstdio>
#include <cstdlib>
#include <iostream>

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

// Whether the manager followed the changes in time.
bool follows(netlink_route::CacheManager const& manager)
{
    auto const begin = Clock::now();
    auto changed = begin;
    auto followed = begin;
    auto same = testing::AssertionFailure();
    for (std::string last; Clock::now() < changed + std::chrono::seconds(2);) {
        auto const looked = Clock::now();
        std::string const now = test::configuration() + test::output("ip nexthop");
        if (now != last) {
            changed = looked;
            same = testing::AssertionFailure();
            last = now;
        }
        if (!same) {
            same = test::answersAsNew(manager, std::chrono::milliseconds(0));
            followed = Clock::now();
        }
        if (looked > begin + std::chrono::seconds(60)) {
            same = testing::AssertionFailure() << "the kernel does not come to rest";
            break;
        }
    }
    Seconds const wait = followed - changed;
    std::printf("    the kernel changed for %.2f s; the manager %s after %.2f s%s; %s",
                Seconds(changed - begin).count(), same ? "was equal" : "DIFFERED", wait.count(), same.message(),
                test::output("echo $(ip -4 -o route show table all | wc -l) routes, "
                             "$(ip nexthop | wc -l) nexthop objects")
                    .c_str());
    return same && wait < Seconds(1);
}

} // namespace

int main()
{
    int failures = 0;
    netlink_route::CacheManager const manager;
    for (std::string command; std::getline(std::cin, command);) {
        std::printf("$ %s\n", command.c_str());
        std::fflush(stdout);
        bool const done = std::system(command.c_str()) == 0; // NOLINT
        bool const followed = follows(manager);
        failures += done && followed ? 0 : 1;
        std::printf("    %s\n", !done ? "FAILED: the command" : followed ? "ok" : "FAILED: late or different");
        std::fflush(stdout);
    }
    std::printf("%d failures\n", failures);
    return failures == 0 ? 0 : 1;
}
