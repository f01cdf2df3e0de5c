#include "LinkRequest.h"

#include "AddressText.h"

#include <linux/if.h>
#include <netlink/errno.h>
#include <sys/socket.h>
#include <vector>

namespace netlink_route {

int checkLink(rtnl_link* link, std::string const& name)
{
    bool const validName = !name.empty() && name.size() < IFNAMSIZ && !holdsNul(name);
    if (!validName) {
        return -NLE_INVAL;
    }
    return link != nullptr ? 0 : -NLE_NOMEM;
}

bool isSameMac(nl_addr* wanted, Address const& current)
{
    NlAddrPtr const held = parseAddress(current.getAddress(), AF_LLC);
    return wanted != nullptr && held != nullptr && nl_addr_cmp(wanted, held.get()) == 0;
}

bool hasSameIps(Interface const& found, Interface const& wanted)
{
    std::vector<Address> const foundIps = found.getIps();
    std::vector<Address> const wantedIps = wanted.getIps();
    return foundIps.size() == wantedIps.size() &&
           (foundIps.empty() || foundIps.front().getAddress() == wantedIps.front().getAddress());
}

} // namespace netlink_route
