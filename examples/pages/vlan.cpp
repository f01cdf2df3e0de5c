// Makes a VLAN with an address, and removes it again: page "Make a VLAN".
#include <netlink_route/CacheManager.h>

#include <iostream>
#include <string>
#include <syslog.h>

using namespace netlink_route;

int main(int argc, char* argv[])
{
    openlog("vlan", LOG_PERROR, LOG_USER); // shows the log that TRACE_LEVEL switches on
    if (argc != 2) {
        std::cerr << "usage: vlan PARENT\n";
        return 2;
    }
    CacheManager manager;

    //! [make]
    Vlan wanted(std::string(argv[1]) + ".100"); // parent and VLAN id come from the name
    wanted.setUp();                             // the parent must be up for this
    wanted.addIp(Address("192.0.2.1/24", Address::IPV4), true);
    if (!manager.update(wanted, 3)) {
        std::cerr << "failed; TRACE_LEVEL=3 tells why\n";
        return 1;
    }
    Vlan const made = manager.getVlan(wanted.getName()); // what the update did is seen at once
    std::cout << made.getName() << " is link " << made.getIndex() << ", VLAN " << made.getVlanIndex() << '\n';
    //! [make]

    return manager.remove(wanted) ? 0 : 1;
}
