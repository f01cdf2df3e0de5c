#pragma once

#include "AddedToKernelInterface.h"
#include "Address.h"
#include "Export.h"

#include <string>
#include <vector>

namespace netlink_route {

// One network link: what a caller wants it to be, or what the kernel holds for it.
//
// A plain value: copies share nothing with the original, and no object follows the kernel. A zero number and
// an empty text mean "not given": a comparison lets them match anything, and an update does not send them. The
// up state and the dormant mode have no such state and are always sent.
//
// The kernel takes the numbers of queues only when it creates a link, and never the ARP type, the queueing
// discipline and the promiscuity count: these are there to be read.
//
// Every setter returns whether it took the value; a refused value leaves the object as it was.
class NETLINK_ROUTE_API Interface : public AddedToKernelInterface {
public:
    explicit Interface(std::string name);
    Interface(Interface const&) = default;
    Interface& operator=(Interface const&) = default;
    ~Interface() override;

    // The kernel's names have 1 to 15 bytes. An empty name is refused.
    std::string getName() const;
    bool setName(std::string name);

    // The kernel's number of the link, 0 when not known. 0 is refused. Never sent.
    int getIndex() const;
    bool setIndex(int index);

    // 0 is refused.
    unsigned int getGroup() const;
    bool setGroup(unsigned int group);

    // Refused unless the address is of type MAC; its text may be empty.
    Address getMac() const;
    bool setMac(Address const& mac);
    Address getBroadcast() const;
    bool setBroadcast(Address const& broadcast);

    // In bytes.
    unsigned int getMtu() const;
    bool setMtu(unsigned int mtu);

    // In packets.
    unsigned int getTxQueueLength() const;
    bool setTxQueueLength(unsigned int length);

    std::string getAlias() const;
    bool setAlias(std::string alias);

    // The hardware type, one of ARPHRD_* in <linux/if_arp.h>.
    unsigned int getArpType() const;
    bool setArpType(unsigned int type);

    // The name of the queueing discipline, such as fq_codel.
    std::string getQueueingDiscipline() const;
    bool setQueueingDiscipline(std::string discipline);

    // How many users keep the link in promiscuous mode.
    unsigned int getPromiscuityCount() const;
    bool setPromiscuityCount(unsigned int count);

    unsigned int getNbrTxQueues() const;
    bool setNbrTxQueues(unsigned int count);
    unsigned int getNbrRxQueues() const;
    bool setNbrRxQueues(unsigned int count);

    // Whether the link stays dormant after it comes up, until its supplicant releases it.
    bool isModeDormant() const;
    bool setModeDormant(bool dormant);

    // The administrative state, not the carrier.
    bool isUp() const;
    bool setUp();
    bool setDown();

    // The IP addresses in the order in which they were added. A link that was read from the kernel has its
    // first IPv4 address here, or none.
    std::vector<Address> getIps() const;

    // Appends an address of type IPV4 or IPV6, after emptying the list when `replace` is set. Refuses an
    // empty text and any other type; does not look for duplicates.
    bool addIp(Address const& ip, bool replace);

    // Removes the first entry with the same text, of whatever type. False when there is none.
    bool deleteIp(Address const& ip);

    // One labelled line a field, and one an IP address.
    std::string toString() const;

private:
    std::string name;
    int index = 0;
    unsigned int group = 0;
    Address mac{"", Address::NONE};
    Address broadcast{"", Address::NONE};
    std::vector<Address> ips;
    unsigned int mtu = 0;
    unsigned int txQueueLength = 0;
    std::string alias;
    unsigned int arpType = 0;
    std::string queueingDiscipline;
    unsigned int promiscuityCount = 0;
    unsigned int nbrTxQueues = 0;
    unsigned int nbrRxQueues = 0;
    bool modeDormant = false;
    bool up = false;
};

// Whether both may describe the same link: the names are equal, and index, group, MAC and broadcast address,
// MTU and ARP type are equal wherever both sides give them. Nothing else is compared. Texts are compared as they
// are, capital letters included. Not transitive.
NETLINK_ROUTE_API bool operator==(Interface const& lhs, Interface const& rhs);
NETLINK_ROUTE_API bool operator!=(Interface const& lhs, Interface const& rhs);

} // namespace netlink_route
