// Replaces one of several addresses of a link: page "Before you change a link that is in use".
#include <netlink_route/CacheManager.h>

#include <iostream>
#include <string>
#include <syslog.h>

using namespace netlink_route;

namespace {

//! [several]
// Removes before it adds: an address in the network of the old one would be secondary to it, and go with it.
bool replaceAddress(CacheManager& manager, std::string const& name, Address const& old, Address const& wanted)
{
    int const index = manager.getInterface(name).getIndex(); // 0 when there is no such link, which is refused
    if (!manager.remove(old, index)) {
        return false;
    }
    if (manager.add(wanted, index)) {
        return true;
    }
    manager.add(old, index); // the wanted one was refused: the old one comes back
    return false;
}
//! [several]

} // namespace

int main(int argc, char* argv[])
{
    openlog("change", LOG_PERROR, LOG_USER); // shows the log that TRACE_LEVEL switches on
    if (argc != 4) {
        std::cerr << "usage: change LINK OLD-ADDRESS/LENGTH NEW-ADDRESS/LENGTH\n";
        return 2;
    }
    CacheManager manager;
    if (!replaceAddress(manager, argv[1], Address(argv[2], Address::IPV4), Address(argv[3], Address::IPV4))) {
        std::cerr << "failed; TRACE_LEVEL=3 tells why\n";
        return 1;
    }
    return 0;
}
