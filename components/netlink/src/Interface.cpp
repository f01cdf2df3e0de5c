#include "Interface.h"

#include "Dump.h"

#include <algorithm>
#include <utility>

namespace netlink_route {

Interface::Interface(std::string linkName) : name(std::move(linkName)) {}

Interface::~Interface() = default;

std::string Interface::getName() const { return name; }

bool Interface::setName(std::string newName)
{
    if (newName.empty()) {
        return false;
    }
    name = std::move(newName);
    return true;
}

int Interface::getIndex() const { return index; }

bool Interface::setIndex(int newIndex)
{
    if (newIndex == 0) {
        return false;
    }
    index = newIndex;
    return true;
}

unsigned int Interface::getGroup() const { return group; }

bool Interface::setGroup(unsigned int newGroup)
{
    if (newGroup == 0) {
        return false;
    }
    group = newGroup;
    return true;
}

Address Interface::getMac() const { return mac; }

bool Interface::setMac(Address const& address)
{
    if (address.getType() != Address::MAC) {
        return false;
    }
    mac = address;
    return true;
}

Address Interface::getBroadcast() const { return broadcast; }

bool Interface::setBroadcast(Address const& address)
{
    if (address.getType() != Address::MAC) {
        return false;
    }
    broadcast = address;
    return true;
}

unsigned int Interface::getMtu() const { return mtu; }

bool Interface::setMtu(unsigned int bytes)
{
    mtu = bytes;
    return true;
}

unsigned int Interface::getTxQueueLength() const { return txQueueLength; }

bool Interface::setTxQueueLength(unsigned int length)
{
    txQueueLength = length;
    return true;
}

std::string Interface::getAlias() const { return alias; }

bool Interface::setAlias(std::string text)
{
    alias = std::move(text);
    return true;
}

unsigned int Interface::getArpType() const { return arpType; }

bool Interface::setArpType(unsigned int type)
{
    arpType = type;
    return true;
}

std::string Interface::getQueueingDiscipline() const { return queueingDiscipline; }

bool Interface::setQueueingDiscipline(std::string discipline)
{
    queueingDiscipline = std::move(discipline);
    return true;
}

unsigned int Interface::getPromiscuityCount() const { return promiscuityCount; }

bool Interface::setPromiscuityCount(unsigned int count)
{
    promiscuityCount = count;
    return true;
}

unsigned int Interface::getNbrTxQueues() const { return nbrTxQueues; }

bool Interface::setNbrTxQueues(unsigned int count)
{
    nbrTxQueues = count;
    return true;
}

unsigned int Interface::getNbrRxQueues() const { return nbrRxQueues; }

bool Interface::setNbrRxQueues(unsigned int count)
{
    nbrRxQueues = count;
    return true;
}

bool Interface::isModeDormant() const { return modeDormant; }

bool Interface::setModeDormant(bool dormant)
{
    modeDormant = dormant;
    return true;
}

bool Interface::isUp() const { return up; }

bool Interface::setUp()
{
    up = true;
    return true;
}

bool Interface::setDown()
{
    up = false;
    return true;
}

std::vector<Address> Interface::getIps() const { return ips; }

bool Interface::addIp(Address const& ip, bool replace)
{
    bool const isIp = ip.getType() == Address::IPV4 || ip.getType() == Address::IPV6;
    if (ip.getAddress().empty() || !isIp) {
        return false;
    }
    if (replace) {
        ips.clear();
    }
    ips.push_back(ip);
    return true;
}

bool Interface::deleteIp(Address const& ip)
{
    std::string const text = ip.getAddress();
    auto const found =
        std::find_if(ips.begin(), ips.end(), [&](Address const& entry) { return entry.getAddress() == text; });
    if (found == ips.end()) {
        return false;
    }
    ips.erase(found);
    return true;
}

std::string Interface::toString() const
{
    Dump dump;
    dump << "name index           " << name << " and index " << index << '\n'
         << "group:               " << group << '\n'
         << "mac address:         " << mac.getAddress() << '\n'
         << "broadcast_address:   " << broadcast.getAddress() << '\n'
         << "mtu:                 " << mtu << '\n'
         << "tx queue length:     " << txQueueLength << '\n'
         << "alias:               " << alias << '\n'
         << "arp type:            " << arpType << '\n'
         << "queue discipline:    " << queueingDiscipline << '\n'
         << "promiscuity count:   " << promiscuityCount << '\n'
         << "tx queue amount:     " << nbrTxQueues << '\n'
         << "rx queue amount:     " << nbrRxQueues << '\n'
         << "mode dormant:        " << modeDormant << '\n'
         << "is active:           " << up << '\n'
         << "ip address count:    " << ips.size() << '\n';
    for (Address const& ip : ips) {
        dump << "ip address:          " << ip.getAddress() << '\n';
    }
    return dump.str();
}

namespace {

bool matches(unsigned int lhs, unsigned int rhs) { return lhs == 0 || rhs == 0 || lhs == rhs; }

bool matches(Address const& lhs, Address const& rhs)
{
    std::string const left = lhs.getAddress();
    std::string const right = rhs.getAddress();
    return left.empty() || right.empty() || left == right;
}

} // namespace

bool operator==(Interface const& lhs, Interface const& rhs)
{
    bool const sameIndex = lhs.getIndex() == 0 || rhs.getIndex() == 0 || lhs.getIndex() == rhs.getIndex();
    return lhs.getName() == rhs.getName() && sameIndex && matches(lhs.getGroup(), rhs.getGroup()) &&
           matches(lhs.getMac(), rhs.getMac()) && matches(lhs.getBroadcast(), rhs.getBroadcast()) &&
           matches(lhs.getMtu(), rhs.getMtu()) && matches(lhs.getArpType(), rhs.getArpType());
}

bool operator!=(Interface const& lhs, Interface const& rhs) { return !(lhs == rhs); }

} // namespace netlink_route
