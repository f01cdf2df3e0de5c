// Configures a link: its MTU and IPv4 address in one update, a VLAN on it, and a route through it. Then it
// removes the VLAN and the route again, and leaves the link as configured.
//
//     configure --yes LINK ADDRESS/LENGTH GATEWAY
//
// It changes the kernel it runs on, so it asks for --yes. GATEWAY must lie in the network of the address. A shell
// command in the environment variable CONFIGURE_WATCH is run after each step, such as CONFIGURE_WATCH='ip address'.
#include <netlink_route/CacheManager.h>

#include <cstdlib>
#include <iostream>
#include <string>
#include <syslog.h>

namespace {

using netlink_route::Address;
using netlink_route::CacheManager;
using netlink_route::Interface;
using netlink_route::Route;
using netlink_route::Vlan;

constexpr int seconds = 5; // how long an update may take to show

bool done(bool success, std::string const& step)
{
    if (!success) {
        std::cerr << "configure: " << step << " failed or did not show in time; TRACE_LEVEL=3 tells why\n";
        return false;
    }
    std::cout << "== " << step << ": done" << std::endl;
    char const* const watch = std::getenv("CONFIGURE_WATCH");
    if (watch != nullptr && std::system(watch) != 0) {
        std::cerr << "configure: CONFIGURE_WATCH failed\n";
        return false;
    }
    return true;
}

bool configureLink(CacheManager& manager, std::string const& name, Address const& address)
{
    Interface wanted(name);
    wanted.setMtu(1400);
    wanted.setUp();
    wanted.addIp(address, true);
    if (!done(manager.update(wanted, seconds), "MTU and address of " + name)) {
        return false;
    }
    std::cout << manager.getInterface(name).toString() << '\n';
    return true;
}

bool tryVlan(CacheManager& manager, std::string const& parent)
{
    Vlan wanted(parent + ".100");
    wanted.setUp();
    wanted.addIp(Address("192.0.2.1/24", Address::IPV4), true);
    if (!done(manager.update(wanted, seconds), "VLAN " + wanted.getName())) {
        return false;
    }
    std::cout << manager.getVlan(wanted.getName()).toString() << '\n';
    return done(manager.remove(wanted), "removal of " + wanted.getName());
}

bool tryRoute(CacheManager& manager, std::string const& gateway)
{
    Address const network("198.51.100.0/24", Address::IPV4);
    Route wanted("example");
    wanted.setDestination(network);
    wanted.setGateway(Address(gateway + "/32", Address::IPV4));
    // What the update did is seen by the query after it.
    bool const success = manager.update(wanted, 0) && manager.getRoute(network).isAddedToKernel();
    if (!done(success, "route to " + network.getAddress())) {
        return false;
    }
    std::cout << manager.getRoute(network).toString() << '\n';
    return done(manager.remove(wanted), "removal of the route");
}

} // namespace

int main(int argc, char* argv[])
{
    openlog("configure", LOG_PERROR, LOG_USER);
    if (argc != 5 || std::string(argv[1]) != "--yes") {
        std::cerr << "usage: configure --yes LINK ADDRESS/LENGTH GATEWAY\n"
                     "It changes this machine's links; --yes says that you want that.\n";
        return 2;
    }
    std::string const name = argv[2];
    if (std::string(argv[3]).find('/') == std::string::npos) {
        std::cerr << "configure: '" << argv[3] << "' needs its prefix length, as in 192.168.1.10/24\n";
        return 2;
    }
    CacheManager manager;
    if (!manager.getInterface(name).isAddedToKernel()) {
        std::cerr << "configure: there is no link named '" << name << "'\n";
        return 1;
    }
    bool const success = configureLink(manager, name, Address(argv[3], Address::IPV4)) && tryVlan(manager, name) &&
                         tryRoute(manager, argv[4]);
    return success ? 0 : 1;
}
