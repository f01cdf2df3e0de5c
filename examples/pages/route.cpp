// Adds, finds, changes and removes a route: page "Add, find and remove a route".
#include <netlink_route/CacheManager.h>

#include <iostream>
#include <string>
#include <syslog.h>

using namespace netlink_route;

namespace {

//! [network]
Address const network("198.51.100.0/24", Address::IPV4);
//! [network]

//! [add]
bool addRoute(CacheManager& manager, std::string const& gateway)
{
    Route wanted("example");
    wanted.setDestination(network);
    wanted.setGateway(Address(gateway + "/32", Address::IPV4)); // a bare gateway would be left out
    return manager.update(wanted, 1);
}
//! [add]

//! [move]
// The new route goes in front of the old one before the old one goes, so that there is a way at any time.
bool moveRoute(CacheManager& manager, std::string const& gateway)
{
    Route const old = manager.getRoute(network);
    return addRoute(manager, gateway) && manager.remove(old);
}
//! [move]

//! [ensure]
// A route that exists is refused, so a program that starts again asks first.
bool ensureRoute(CacheManager& manager, std::string const& gateway)
{
    Route found = manager.getRoute(network);
    if (!found.isAddedToKernel()) {
        return addRoute(manager, gateway);
    }
    bool const same = found.getGateway().getAddress() == gateway + "/32";
    return same || moveRoute(manager, gateway);
}
//! [ensure]

} // namespace

int main(int argc, char* argv[])
{
    openlog("route", LOG_PERROR, LOG_USER); // shows the log that TRACE_LEVEL switches on
    if (argc != 3) {
        std::cerr << "usage: route GATEWAY OTHER-GATEWAY\n";
        return 2;
    }
    CacheManager manager;
    for (std::string const gateway : {argv[1], argv[1], argv[2]}) {
        if (!ensureRoute(manager, gateway)) {
            std::cerr << "failed; TRACE_LEVEL=3 tells why\n";
            return 1;
        }
        std::cout << "the gateway is " << manager.getRoute(network).getGateway().getAddress() << '\n';
    }

    //! [remove]
    Route const found = manager.getRoute(network); // with its gateway, metric and owner: it fits no other
    return manager.remove(found) ? 0 : 1;          // takes one second
    //! [remove]
}
