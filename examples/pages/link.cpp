// Reads one link: page "Read a link".
#include <netlink_route/CacheManager.h>

#include <iostream>

using namespace netlink_route;

int main(int argc, char* argv[])
{
    if (argc != 2) {
        std::cerr << "usage: link NAME\n";
        return 2;
    }
    CacheManager const manager;
    Interface link = manager.getInterface(argv[1]);
    if (!link.isAddedToKernel()) {
        std::cerr << "there is no link named " << argv[1] << '\n';
        return 1;
    }
    std::cout << link.getName() << " is " << (link.isUp() ? "up" : "down") << " with an MTU of " << link.getMtu()
              << " bytes, MAC " << link.getMac().getAddress() << '\n';
    for (Address const& ip : link.getIps()) { // one at most
        std::cout << "first IPv4 address: " << ip.getAddress() << '\n';
    }
    Vlan const vlan = manager.getVlan(argv[1]);
    if (vlan.getVlanIndex() > 0) { // negative: no VLAN
        std::cout << "VLAN id " << vlan.getVlanIndex() << '\n';
    }
    return 0;
}
