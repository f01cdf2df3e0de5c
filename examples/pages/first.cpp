// Gives a link a static address and a default route; without arguments, shows the links.
#include <netlink_route/CacheManager.h>
#include <netlink_route/TraceLevel.h>

#include <arpa/inet.h>
#include <cstdlib>
#include <iostream>
#include <string>
#include <syslog.h>

using namespace netlink_route;

static bool isAddress(std::string const& text) // trap 1
{
    auto const slash = text.find('/');
    std::string const digits = text.substr(slash + 1);
    auto const length = std::strtoul(digits.c_str(), nullptr, 10);
    in_addr bytes{};
    return inet_pton(AF_INET, text.substr(0, slash).c_str(), &bytes) == 1 && length <= 32 &&
           digits == std::to_string(length);
}

int main(int argc, char* argv[])
{
    openlog("first", LOG_PERROR, LOG_USER); // the log goes to standard error, too
    trace::setLevel(3);                     // errors; at level 0, the start, nothing is written
    CacheManager manager;
    if (argc != 4) {
        for (std::string const& name : manager.getListOfInterfaces()) {
            std::cout << manager.getInterface(name).toString() << '\n';
        }
        return 0;
    }
    std::string const address = argv[2];
    std::string const gateway = std::string(argv[3]) + "/32"; // trap 4
    if (!isAddress(address) || !isAddress(gateway)) {
        std::cerr << "usage: first LINK ADDRESS/LENGTH GATEWAY\n";
        return 2;
    }
    Interface const link = manager.getInterface(argv[1]);
    auto const ips = link.getIps();
    if (!link.isUp() || ips.empty() || ips.front().getAddress() != address) { // trap 2
        Interface wanted(argv[1]);
        wanted.setUp(); // trap 3
        wanted.addIp(Address(address, Address::IPV4), true);
        if (!manager.update(wanted, 3)) { // at most three looks whether it is so
            return 1;
        }
    }
    Route route("uplink"); // a label
    route.setDestination(Address("0.0.0.0/0", Address::IPV4));
    route.setGateway(Address(gateway, Address::IPV4));
    Route const found = manager.getRoute(route.getDestination());
    bool const done = found.getGateway().getAddress() == gateway || manager.update(route, 3);
    return done ? 0 : 1;
}
