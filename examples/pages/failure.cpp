// Asks for what fails, and shows where the reason is: page "Know why something failed".
#include <netlink_route/CacheManager.h>
#include <netlink_route/TraceLevel.h>

#include <iostream>
#include <syslog.h>

using namespace netlink_route;

int main()
{
    openlog("failure", LOG_PERROR, LOG_USER); // the log goes to standard error, too
    trace::setLevel(3);                       // errors; nothing is written at level 0
    CacheManager manager;

    std::cout << "\nan update of a link that is not there:" << std::endl;
    bool done = manager.update(Interface("nolink"), 1);

    std::cout << "\nan address without its prefix length:" << std::endl;
    done = manager.add(Address("192.0.2.1", Address::IPV4), 1) || done;

    std::cout << "\na VLAN on a parent that is not there:" << std::endl;
    done = manager.update(Vlan("nolink.5"), 1) || done;

    std::cout << "\na route that is not there:" << std::endl;
    Route route("somewhere");
    route.setDestination(Address("203.0.113.0/24", Address::IPV4));
    done = manager.remove(route) || done;
    return done ? 1 : 0;
}
