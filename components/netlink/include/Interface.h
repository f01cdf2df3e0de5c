/// @file
#pragma once

#include "AddedToKernelInterface.h"
#include "Address.h"
#include "Export.h"

#include <string>
#include <vector>

namespace netlink_route {

/// One network link: what a caller wants it to be, or what the kernel holds for it.
///
/// A plain value: copies share nothing with the original, and no object follows the kernel. A zero number and
/// an empty text mean "not given": a comparison lets them match anything, and an update does not send them. The
/// up state and the dormant mode have no such state and are always sent.
///
/// The kernel takes the numbers of queues only when it creates a link, and never the ARP type, the queueing
/// discipline and the promiscuity count: these are there to be read.
///
/// Every setter returns whether it took the value; a refused value leaves the object as it was.
class NETLINK_ROUTE_API Interface : public AddedToKernelInterface {
public:
    /// A link of that name, down, with nothing else given. The name is not checked.
    explicit Interface(std::string linkName);

    ///@{

    /// Values are handed over whole, the list of addresses and the flag of AddedToKernelInterface included.
    Interface(Interface const&) = default;
    Interface(Interface&&) = default;
    Interface& operator=(Interface const&) = default;
    Interface& operator=(Interface&&) = default;
    ~Interface() override;
    ///@}

    ///@{

    /// The kernel's names have 1 to 15 bytes; an update refuses others. Here an empty name is refused. Alternative
    /// names are not known here: a query does not find a link by them, while an update or a removal reaches it.
    std::string getName() const;
    bool setName(std::string newName);
    ///@}

    ///@{

    /// The kernel's number of the link, 0 when not known. 0 is refused. Never sent.
    int getIndex() const;
    bool setIndex(int newIndex);
    ///@}

    ///@{

    /// The group of links that it belongs to. 0 is refused and never sent: an update cannot put a link back into
    /// the kernel's default group, which is 0.
    unsigned int getGroup() const;
    bool setGroup(unsigned int newGroup);
    ///@}

    ///@{

    /// The addresses of the link layer. Refused unless the address is of type MAC; its text may be empty.
    Address getMac() const;
    bool setMac(Address const& address);
    Address getBroadcast() const;
    bool setBroadcast(Address const& address);
    ///@}

    ///@{

    /// The largest packet, in bytes.
    unsigned int getMtu() const;
    bool setMtu(unsigned int bytes);
    ///@}

    ///@{

    /// How many packets may wait to be sent.
    unsigned int getTxQueueLength() const;
    bool setTxQueueLength(unsigned int length);
    ///@}

    ///@{

    /// A text for people. An empty one is not sent: an update cannot clear it.
    std::string getAlias() const;
    bool setAlias(std::string text);
    ///@}

    ///@{

    /// The hardware type, one of ARPHRD_* in `<linux/if_arp.h>`. The kernel never takes it.
    unsigned int getArpType() const;
    bool setArpType(unsigned int type);
    ///@}

    ///@{

    /// The name of the queueing discipline, such as fq_codel. The kernel never takes it.
    std::string getQueueingDiscipline() const;
    bool setQueueingDiscipline(std::string discipline);
    ///@}

    ///@{

    /// How many users keep the link in promiscuous mode. The kernel never takes it, and notifies nobody of it: it
    /// is as old as the link's last notification.
    unsigned int getPromiscuityCount() const;
    bool setPromiscuityCount(unsigned int count);
    ///@}

    ///@{

    /// How many queues the link has for sending and for receiving. Taken when the link is created.
    unsigned int getNbrTxQueues() const;
    bool setNbrTxQueues(unsigned int count);
    unsigned int getNbrRxQueues() const;
    bool setNbrRxQueues(unsigned int count);
    ///@}

    ///@{

    /// Whether the link stays dormant after it comes up, until its supplicant releases it. Always sent.
    bool isModeDormant() const;
    bool setModeDormant(bool dormant);
    ///@}

    ///@{

    /// The administrative state, not the carrier. Always sent: without setUp() an update takes the link down.
    bool isUp() const;
    bool setUp();
    bool setDown();
    ///@}

    ///@{

    /// The IP addresses in the order in which they were added. A link that was read from the kernel has its
    /// first IPv4 address here, or none; see CacheManager::getIps.
    std::vector<Address> getIps() const;

    /// Appends an address of type IPV4 or IPV6, after emptying the list when `replace` is set. Refuses an
    /// empty text and any other type; does not look for duplicates.
    ///
    /// @warning What the text means is not looked at. An update with a text that is no address (10.0.0.1 without its
    /// prefix length, 10.0.0.300/24), or with an IPv6 address, which is never sent, takes away the IPv4 address that the
    /// link has, and adds none.
    bool addIp(Address const& ip, bool replace);

    /// Removes the first entry with the same text, of whatever type. False when there is none.
    bool deleteIp(Address const& ip);
    ///@}

    /// One labelled line a field, and one an IP address.
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

/// @relates netlink_route::Interface
/// Whether both may describe the same link: the names are equal, and index, group, MAC and broadcast address,
/// MTU and ARP type are equal wherever both sides give them. Nothing else is compared. Texts are compared as they
/// are, capital letters included. Not transitive.
NETLINK_ROUTE_API bool operator==(Interface const& lhs, Interface const& rhs);
/// @relates netlink_route::Interface
/// Whether operator== is false.
NETLINK_ROUTE_API bool operator!=(Interface const& lhs, Interface const& rhs);

} // namespace netlink_route
