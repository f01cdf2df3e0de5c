// A program with a manager that is a global object, and headers whose names the library has too. It starts and stops
// many managers, and fails if one does not answer or if each leaves a descriptor behind.
#include <CacheManager.h>
#include <Interface.h>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <netlink_route/CacheManager.h>
#include <netlink_route/Interface.h>

namespace {

netlink_route::CacheManager const globalManager;
Interface const loopback{"lo"};

bool answers(netlink_route::CacheManager const& manager)
{
    return manager.getInterface(loopback.name).isAddedToKernel();
}

auto descriptors()
{
    std::filesystem::directory_iterator const files("/proc/self/fd");
    return std::distance(begin(files), end(files));
}

} // namespace

int main()
{
    auto const before = descriptors();
    bool good = answers(globalManager);
    for (int i = 0; i < 200; ++i) {
        netlink_route::CacheManager const manager;
        good = good && answers(manager);
    }
    std::printf("%s, %td descriptors, %td before\n", good ? "all managers answered" : "a manager did not answer",
                descriptors(), before);
    return good && descriptors() < before + 20 ? 0 : 1; // a thread may be about to open one of its own
}
