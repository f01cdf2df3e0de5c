// Tells when a link changes: page "Notice a change".
#include <netlink_route/CacheManager.h>

#include <chrono>
#include <iostream>
#include <string>
#include <thread>

using namespace netlink_route;

namespace {

//! [state]
// What this program cares for, as a text; two texts that differ tell a change.
std::string stateOf(CacheManager const& manager, std::string const& name)
{
    Interface link = manager.getInterface(name); // microseconds, and no trip to the kernel
    if (!link.isAddedToKernel()) {
        return "gone";
    }
    auto const ips = link.getIps();
    return std::string(link.isUp() ? "up" : "down") + ", MTU " + std::to_string(link.getMtu()) + ", " +
           (ips.empty() ? "no address" : ips.front().getAddress());
}
//! [state]

} // namespace

int main(int argc, char* argv[])
{
    if (argc != 2) {
        std::cerr << "usage: notice LINK\n";
        return 2;
    }
    //! [loop]
    CacheManager const manager;
    std::string last;
    while (true) { // until it is interrupted
        std::string const state = stateOf(manager, argv[1]);
        if (state != last) {
            std::cout << argv[1] << ": " << state << std::endl;
            last = state;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    //! [loop]
}
