// Brings a link to a wanted state, and leaves alone what is as wanted: page "Bring a link to a wanted state".
#include <netlink_route/CacheManager.h>

#include <iostream>
#include <string>
#include <syslog.h>

using namespace netlink_route;

namespace {

//! [mtu]
// Hands in name, MTU and up state alone: the addresses of the link, and the routes through them, stay.
bool bringToMtu(CacheManager& manager, std::string const& name, unsigned int mtu)
{
    Interface current = manager.getInterface(name);
    if (current.isAddedToKernel() && current.getMtu() == mtu && current.isUp()) {
        return true;
    }
    Interface wanted(name);
    wanted.setMtu(mtu);
    wanted.setUp(); // always sent: without it the update takes the link down
    return manager.update(wanted, 3);
}
//! [mtu]

//! [address]
// The update replaces the address that the link has, and the routes through it go: so only when it is another one. The
// text must be an address: any other one removes the link's, and adds none.
bool bringToAddress(CacheManager& manager, std::string const& name, std::string const& address)
{
    Interface const current = manager.getInterface(name);
    auto const ips = current.getIps();
    if (!ips.empty() && ips.front().getAddress() == address) {
        return true;
    }
    Interface wanted(name);
    wanted.setUp();
    wanted.addIp(Address(address, Address::IPV4), true);
    return manager.update(wanted, 3);
}
//! [address]

} // namespace

int main(int argc, char* argv[])
{
    openlog("state", LOG_PERROR, LOG_USER); // shows the log that TRACE_LEVEL switches on
    if (argc != 3) {
        std::cerr << "usage: state LINK ADDRESS/LENGTH\n";
        return 2;
    }
    CacheManager manager;
    if (!bringToMtu(manager, argv[1], 1400) || !bringToAddress(manager, argv[1], argv[2])) {
        std::cerr << "failed; TRACE_LEVEL=3 tells why\n";
        return 1;
    }
    std::cout << manager.getInterface(argv[1]).toString();
    return 0;
}
