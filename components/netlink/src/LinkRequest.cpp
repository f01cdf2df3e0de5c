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

namespace {

bool isSameMac(Address const& lhs, Address const& rhs)
{
    NlAddrPtr const left = parseAddress(lhs.getAddress(), AF_LLC);
    NlAddrPtr const right = parseAddress(rhs.getAddress(), AF_LLC);
    return left != nullptr && right != nullptr && nl_addr_cmp(left.get(), right.get()) == 0;
}

} // namespace

void leaveOutKnownAddresses(Interface& wanted, Interface const& current)
{
    Address const notGiven("", Address::MAC);
    if (isSameMac(wanted.getMac(), current.getMac())) {
        wanted.setMac(notGiven);
    }
    if (isSameMac(wanted.getBroadcast(), current.getBroadcast())) {
        wanted.setBroadcast(notGiven);
    }
}

bool hasSameIps(Interface const& found, Interface const& wanted)
{
    std::vector<Address> const foundIps = found.getIps();
    std::vector<Address> const wantedIps = wanted.getIps();
    return foundIps.size() == wantedIps.size() &&
           (foundIps.empty() || foundIps.front().getAddress() == wantedIps.front().getAddress());
}

} // namespace netlink_route
