// Keeps the MTU of a link whose addresses somebody else keeps: page "Run beside a daemon".
#include <netlink_route/CacheManager.h>

#include <chrono>
#include <iostream>
#include <string>
#include <syslog.h>
#include <thread>

using namespace netlink_route;

namespace {

//! [keep]
// Changes the MTU and nothing else. What an update always sends is sent as it is.
bool keepMtu(CacheManager& manager, std::string const& name, unsigned int mtu)
{
    Interface current = manager.getInterface(name);
    if (!current.isAddedToKernel() || current.getMtu() == mtu) {
        return true; // nothing to do, or no link
    }
    Interface wanted(name);
    wanted.setMtu(mtu);
    wanted.setModeDormant(current.isModeDormant());
    if (current.isUp()) {
        wanted.setUp();
    }
    std::cout << name << " had " << current.getMtu() << std::endl;
    return manager.update(wanted, -1); // the next round looks again
}
//! [keep]

} // namespace

int main(int argc, char* argv[])
{
    openlog("daemon", LOG_PERROR, LOG_USER); // shows the log that TRACE_LEVEL switches on
    if (argc != 2) {
        std::cerr << "usage: daemon LINK\n";
        return 2;
    }
    CacheManager manager;
    while (true) { // until it is interrupted
        if (!keepMtu(manager, argv[1], 1400)) {
            std::cerr << "refused; TRACE_LEVEL=3 tells why\n";
        }
        std::this_thread::sleep_for(std::chrono::seconds(1)); // two that disagree must not spin
    }
}
