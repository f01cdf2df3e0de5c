/// @file
#pragma once

#include "Address.h"
#include "Export.h"
#include "Interface.h"
#include "MyLock.h"
#include "Route.h"
#include "RouteSocket.h"
#include "Vlan.h"

#include <memory>
#include <mutex>
#include <pthread.h>
#include <string>
#include <sys/types.h>
#include <vector>

struct nl_addr;
struct nl_cache;
struct nl_cache_mngr;
struct nl_object;
struct rtnl_addr;
struct rtnl_link;
struct rtnl_route;

/// Links, VLANs, IPv4 addresses and routes of the Linux kernel, read and changed.
namespace netlink_route {

class CacheMirror;
class NoCancellation;

/// Reads and changes the network configuration of the kernel.
///
/// The manager mirrors the kernel's links, IPv4 addresses and IPv4 routes in caches that its own event thread keeps
/// current. Queries answer from the caches, never ask the kernel, and return values that share nothing with the
/// manager. Changes are requests to the kernel.
///
/// @par What queries see
/// What a change did is seen by the queries that the same thread makes after it: a change that the kernel accepted
/// waits until the event thread has applied what the kernel had notified by then (an update with addresses does so
/// twice). Two exceptions: a change in another network namespace, and one that the event thread has not reached after a
/// tenth of a second of its work, or after one second at the very most: while others change the kernel without pause, or
/// while it reads, say, 100,000 routes on a busy machine. What others do is seen when the kernel's notification has been
/// applied, within milliseconds. Routes that the kernel drops without a notification, with a link that goes down for one,
/// leave the caches a moment later. There is no callback: a program that must notice a change asks again from time to
/// time, which costs microseconds.
///
/// @par Waiting
/// Queries wait for one another and for a small part of a cache update in progress, never for the kernel. An update
/// is as fast as the kernel; if what was wanted does not show, it looks again each second, for twice `tries` seconds at
/// the very worst. The removal of a route that the kernel accepted takes one second.
///
/// @par Threads and signals
/// Every operation may be called from any thread at any time between construction and destruction. Two updates at
/// once are sent one after the other. The event thread blocks no signals, but for those that the thread that made the
/// manager blocks: a signal whose handler runs there costs a line in the log. One whose handler runs in a thread that
/// pauses ends the pause of that moment. Only in these pauses of one second can a calling thread be cancelled
/// (pthread_cancel).
///
/// @par Failures
/// Nothing throws on a failure of the kernel, and no error code is returned. A failure is told by false, by null, or by
/// a value whose isAddedToKernel() is false, and its reason is in the log (TraceLevel.h), but for a name that is no
/// VLAN's or, in a removal, empty. std::bad_alloc may be thrown. The constructor only logs: a manager that could not
/// start answers "not found" to every query. Its changes are sent all the same; an update that shall be verified fails.
///
/// @par Network namespaces
/// Queries and updates concern the namespace of the thread that made the manager. Adding an address, and all removals,
/// concern that of the calling thread. Call them from the same one.
///
/// @par fork
/// The event thread does not exist in the child. The child may destroy the manager, which closes its descriptors there
/// and does nothing else, or leave it; it must neither use it nor make one of its own, since locks that were held at the
/// fork stay so. A program that it starts with `exec` may. While a child lives that does neither, it keeps the manager's
/// sockets open, and the kernel goes on to queue notifications there, up to 16 MiB, also when the parent has destroyed
/// the manager. One socket of libnl, on which nothing arrives, stays open in the child in any case.
class NETLINK_ROUTE_API CacheManager {
public:
    /// Returns when the caches are filled. Does not wait for mutex_man.
    CacheManager();
    /// Waits for the event thread's work of the moment, and if that thread waits for mutex_man, for its holder. No other
    /// operation may be in progress.
    ~CacheManager();
    ///@{

    /// A manager is not copied.
    CacheManager(CacheManager const&) = delete;
    CacheManager& operator=(CacheManager const&) = delete;
    ///@}

    /// @name Queries
    ///@{

    /// The first IPv4 address of the link with that index, or none. The first is that of the cache: of those that the
    /// link had at the start the kernel's first, and those that came later stand behind. The others cannot be listed.
    std::vector<Address> getIps(int index) const;

    /// The link of that name with its first IPv4 address. Not found: isAddedToKernel() is false, and nothing
    /// but the name is set. An alternative name finds nothing.
    ///
    /// What the kernel notifies nobody of is as old as the link's last notification: the promiscuity count; group,
    /// alias and mode of a link that is down, when others changed them; the MTU of some links that lie over others. An
    /// update that hands it back writes the old value over the new one.
    Interface getInterface(std::string name) const;

    /// The VLAN link of that name, likewise. Not found: isAddedToKernel() is false, and the VLAN index is 0. Of a link
    /// that is no VLAN, the VLAN index is a negative number.
    Vlan getVlan(std::string name) const;

    /// The names of all links, in the order of the cache.
    std::vector<std::string> getListOfInterfaces() const;

    /// The first IPv4 route in the cache to exactly that destination, prefix length included; no longest prefix is looked
    /// for. Of two routes to one destination, in two tables or with two metrics for instance, either may be the answer: at
    /// the start the first is the kernel's, and later ones stand behind. The others cannot be listed. Not found, or no
    /// destination: isAddedToKernel() is false, and the name is empty.
    Route getRoute(Address destination) const;

    ///@}

    /// @name Changes of addresses: one request each
    ///@{

    /// Adds the address to the link with that index, or removes it from there. False when the address does not convert,
    /// the index is 0, or the kernel refuses: it exists already, or is not there. An address with a peer is not removed
    /// by its text. With an address the kernel removes the routes that need it, and the secondary addresses of its
    /// network.
    bool add(Address address, int index);
    bool remove(Address address, int index);

    ///@}

    /// @name Changes of links
    ///@{

    /// Changes the link of that name, then replaces its first IPv4 address by the wanted ones. A link that does not
    /// exist is asked for without a kind, which the kernel refuses: only VLANs can be created.
    ///
    /// After each of the two steps the update looks whether the caches show the wanted state, at most `tries` times.
    /// After each look in vain it pauses for one second, which is rare, since an accepted change is already in the caches.
    ///
    /// With `tries` 0 the request is sent, the addresses are left alone, and the update is false, whatever the kernel did.
    /// Below 0 nothing is verified: the update is true when the kernel accepts the link, even if it then refuses every
    /// address. (A table of this: page @ref wanted_state.) The comparison is operator==, and that of the address's text. So an update waits in vain for:
    /// - two or more addresses, since a link is read with one;
    /// - an address with /32, which is read back without;
    /// - an IPv6 address, which is not sent;
    /// - an address that does not convert: it is left out, with an error in the log;
    /// - a MAC or broadcast address that is read back otherwise: with capital letters, or with numbers of one digit;
    /// - another ARP type or VLAN id of a link that exists, which the kernel does not take;
    /// - another index than the link's, which is not sent;
    /// - a link under its alternative name, by which no query finds it.
    ///
    /// @warning A bare, misspelt or IPv6 address takes away the address that the link has, since that is removed first,
    /// and adds none. With `tries` below 0 the update is even true.
    ///
    /// @warning Addresses are replaced by removing first and adding then, even when both are equal. The kernel then
    /// drops the routes that went through the old one, the default route too, and its label, its lifetime and the
    /// secondary addresses of its network. A wanted interface without addresses leaves those of the link alone: hand in
    /// one with name, MTU and up state to change an MTU, not one that was read with its address. Of a link with several
    /// addresses, change them with add() and remove().
    ///
    /// Repeating an update is safe but for the addresses. False leaves what was done before the failure; addresses that
    /// are refused do not bring the old one back.
    bool update(Interface const& interface, int tries);

    /// Makes or changes the VLAN of that name as the update of a link does. The part of the name before the first '.'
    /// is the parent, which must exist, and be up if the VLAN shall be up. An existing VLAN stays on the parent that
    /// it has. A name without '.' is refused without a line in the log.
    bool update(Vlan const& vlan, int tries);

    /// Deletes the link of that name, or of that alternative name. Does not verify.
    bool remove(Interface const& interface);
    /// Deletes the link of that name, whether it is a VLAN or not.
    bool remove(Vlan const& vlan);

    ///@}

    /// @name Changes of routes
    ///@{

    /// Adds the route; the second argument has no effect, not even 0. A route that exists is refused, so a repeated
    /// update is false. One that differs in its gateway alone is a second route, in front of the first.
    bool update(Route const& route, int tries);

    /// Deletes a route that fits, then waits one second; a refusal returns at once. A route without a gateway fits
    /// through any gateway, one with priority 0 at any metric.
    bool remove(Route const& route);

    ///@}

    /// @name Conversions: from values to libnl's objects and back
    /// Null is refused with an error in the log.
    ///
    /// What a convertTo operation returns is the caller's to release with libnl's put function; null when it
    /// cannot be converted. What a generateFrom operation reads stays the caller's; an object of the manager's
    /// caches may only be read under mutex_man (MyLock.h).
    ///@{

    /// The address of the text, as its type says. Null for a text that Address does not list.
    static nl_addr* convertToAddress(Address const& address);
    /// The address on the link with that index; null when that is 0.
    static rtnl_addr* convertToAddress(Address const& address, int index);
    /// The text is libnl's: a prefix length of 32 is not written. Null gives an empty text of type NONE.
    static Address generateFromAddress(nl_addr* address);

    /// Writes what the interface gives into the link.
    static void convertToLinkCommonHelper(rtnl_link* link, Interface const& interface);
    /// A link of no kind.
    static rtnl_link* convertToLink(Interface const& interface);
    /// A link of the kind VLAN, without its parent.
    static rtnl_link* convertToLink(Vlan const& vlan);
    /// Writes what the link has into the interface, the name and the addresses aside.
    static void generateFromLinkCommonHelper(Interface& interface, rtnl_link* link);
    /// The link under the name that is given.
    static Interface generateFromLink(std::string name, rtnl_link* link);
    /// The same of a VLAN link; the VLAN index is negative when it is none.
    static Vlan generateFromLinkVlan(std::string name, rtnl_link* link);

    /// Leaves out what does not convert, a bare gateway for one.
    static rtnl_route* convertToRoute(Route const& route);
    /// The route is called "result"; null gives one with an empty name.
    static Route generateFromRoute(rtnl_route* found);

    ///@}

    /// @name What libnl and the event thread call
    ///@{

    /// Logs that a cache changed, and has the event thread read again what the change puts in question. The data is
    /// the CacheManager; nothing but the line happens when it is null or does not run, when the cache is none of its three,
    /// or without an object.
    static void changeCb(nl_cache* cache, nl_object* object, int action, void* data);
    /// The event thread; its argument is the nl_cache_mngr. Never returns. With a cache manager that is not of a
    /// CacheManager it only has libnl apply what arrives, under mutex_man.
    static void* cacheThread(void* arg);

    ///@}

private:
    NETLINK_ROUTE_LOCAL void freeCaches();
    NETLINK_ROUTE_LOCAL void abandon();

    // Returns libnl's result.
    template <typename Send>
    NETLINK_ROUTE_LOCAL int sendOnRouteSocket(Send send);

    // Sends a change of the link with that index or, with 0, its creation. Returns libnl's result.
    NETLINK_ROUTE_LOCAL int sendLink(rtnl_link* link, std::string const& name, int index, bool wait);

    // Waits until the caches show what was changed, if there are caches.
    NETLINK_ROUTE_LOCAL void waitForEvents() const;

    // The public operations of these names. All three with `wait` wait until the caches show the change.
    NETLINK_ROUTE_LOCAL bool add(Address const& address, int index, bool wait);
    NETLINK_ROUTE_LOCAL bool remove(Address const& address, int index, bool wait);

    // Puts the wanted addresses in the place of the one that is there, and waits once.
    NETLINK_ROUTE_LOCAL void replaceIps(int index, Interface const& wanted);

    // The second half of the update of a VLAN: waits until the caches show it as wanted, and sets its addresses.
    // `found` is the VLAN as it was before. The function has the name that its log lines must show.
    NETLINK_ROUTE_LOCAL bool update(Vlan const& vlan, Vlan found, int tries, NoCancellation const& guard);

    nl_cache_mngr* mngr = nullptr;
    RouteSocket routeSocket;
    pthread_t thread = 0; // 0: not running
    nl_cache* routeCache = nullptr;
    nl_cache* linkCache = nullptr;
    nl_cache* addrCache = nullptr;
    std::mutex requestMutex;             // one request at a time on routeSocket; never held together with mutex_man
    std::unique_ptr<CacheMirror> mirror; // null: not running
    pid_t const process;                 // the one in which the event thread runs
};

} // namespace netlink_route
