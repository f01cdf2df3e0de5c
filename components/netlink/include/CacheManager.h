#pragma once

#include "Address.h"
#include "Export.h"
#include "Interface.h"
#include "Route.h"
#include "RouteSocket.h"
#include "Vlan.h"

#include <mutex>
#include <pthread.h>
#include <string>
#include <vector>

struct nl_addr;
struct nl_cache;
struct nl_cache_mngr;
struct nl_object;
struct rtnl_addr;
struct rtnl_link;
struct rtnl_route;

namespace netlink_route {

// Reads and changes the network configuration of the kernel.
//
// The manager mirrors the kernel's links, routes and addresses in caches that its own event thread keeps current.
// Queries answer from the caches, never ask the kernel, and return values that share nothing with the manager.
// Changes are requests to the kernel; the caches show them when the kernel's notification has arrived, a moment
// after the request was accepted. Routes that the kernel drops without a notification, with a link that goes down
// for one, leave the caches within a second, if the table is not very large.
//
// Threading: every operation may be called from any thread at any time between construction and destruction.
// Queries wait for one another and for a cache update in progress, never for the kernel. The event thread blocks
// no signals.
//
// Failures: nothing throws on a failure of the kernel, and no error code is returned. A failure is logged (see
// README.md) and told by false, by null, or by a value whose isAddedToKernel() is false. The constructor only
// logs: a manager that could not start answers "not found" to every query, and refuses every change.
//
// Network namespaces: queries and updates concern the namespace of the thread that made the manager. Adding an
// address, and all removals, concern that of the calling thread. Call them from the same one.
class NETLINK_ROUTE_API CacheManager {
public:
    CacheManager();
    ~CacheManager(); // no other operation may be in progress; waits for the event thread's work of the moment
    CacheManager(CacheManager const&) = delete;
    CacheManager& operator=(CacheManager const&) = delete;

    // ---- Queries ----

    // The first IPv4 address of the link with that index, or none.
    std::vector<Address> getIps(int index) const;

    // The link of that name with its first IPv4 address. Not found: isAddedToKernel() is false, and nothing
    // but the name is set.
    Interface getInterface(std::string name) const;

    // The same for a VLAN link. Not found: isAddedToKernel() is false, and the VLAN index is 0. Of a link
    // that is no VLAN, the VLAN index is a negative number.
    Vlan getVlan(std::string name) const;

    // The names of all links, in the order of the cache.
    std::vector<std::string> getListOfInterfaces() const;

    // The first route, in the order of the cache, to exactly that destination, prefix length included, of
    // whatever table. Not found, or no destination: isAddedToKernel() is false, and the name is empty.
    Route getRoute(Address destination) const;

    // ---- Changes of addresses: one request each ----

    // False when the address does not convert, the index is 0, or the kernel refuses (it exists already, or
    // is not there).
    bool add(Address address, int index);
    bool remove(Address address, int index);

    // ---- Changes of links ----

    // Changes the link of that name, then replaces its IPv4 address by the wanted ones. A link that does not exist is
    // asked for without a kind, which the kernel refuses: only VLANs can be created.
    //
    // After each of the two steps the update waits until the caches show the wanted state: `tries` attempts, one
    // second apart. With `tries` 0 the first wait fails at once; below 0 nothing is waited for or verified. The
    // wait compares as operator== does, and the text of the address. So these wait in vain: two or more wanted
    // addresses, since a link is read with one; an address with /32 and a MAC with capital letters, since they
    // are read back otherwise; another ARP type, which the kernel does not take.
    //
    // A wanted interface without addresses leaves those of the link alone. False leaves what was done before the
    // failure; addresses that are refused do not bring the old one back.
    bool update(Interface const& interface, int tries);

    // The same for a VLAN, on the parent link that its name gives: the part before the first '.'. The parent
    // must exist, and be up if the VLAN shall be up.
    bool update(Vlan const& vlan, int tries);

    // Deletes the link of that name. Neither waits nor verifies.
    bool remove(Interface const& interface);
    bool remove(Vlan const& vlan);

    // ---- Changes of routes ----

    // Adds the route. The second argument has no effect: nothing is waited for.
    bool update(Route const& route, int tries);

    // Deletes the route, then waits one second; a refusal returns at once.
    bool remove(Route const& route);

    // ---- Conversions: from values to libnl's objects and back ----
    //
    // What a convertTo operation returns is the caller's to release with libnl's put function; null when it
    // cannot be converted. What a generateFrom operation reads stays the caller's; an object of the manager's
    // caches may only be read under mutex_man (MyLock.h).

    static nl_addr* convertToAddress(Address const& address);
    static rtnl_addr* convertToAddress(Address const& address, int index); // index: the link that owns it
    static Address generateFromAddress(nl_addr* address);

    static void convertToLinkCommonHelper(rtnl_link* link, Interface const& interface);
    static rtnl_link* convertToLink(Interface const& interface);
    static rtnl_link* convertToLink(Vlan const& vlan);
    static void generateFromLinkCommonHelper(Interface& interface, rtnl_link* link);
    static Interface generateFromLink(std::string name, rtnl_link* link);
    static Vlan generateFromLinkVlan(std::string name, rtnl_link* link);

    static rtnl_route* convertToRoute(Route const& route);
    static Route generateFromRoute(rtnl_route* route);

    // ---- What libnl and the event thread call ----

    static void changeCb(nl_cache* cache, nl_object* object, int action, void* data);
    static void* cacheThread(void* arg); // arg: the nl_cache_mngr

private:
    NETLINK_ROUTE_LOCAL void freeCaches();

    // Sends on routeSocket. Returns libnl's result.
    NETLINK_ROUTE_LOCAL int sendLink(rtnl_link* link, std::string const& name, bool exists);

    // Steps of the update of a VLAN, called update because their log lines carry the name: one sends the request,
    // the other verifies the addresses.
    NETLINK_ROUTE_LOCAL bool update(Vlan const& wanted, Interface const& parent, Vlan const& current);
    NETLINK_ROUTE_LOCAL bool update(Vlan const& wanted, Vlan found, int tries);

    nl_cache_mngr* mngr = nullptr;
    RouteSocket routeSocket;
    pthread_t thread = 0; // 0: not running
    nl_cache* routeCache = nullptr;
    nl_cache* linkCache = nullptr;
    nl_cache* addrCache = nullptr;
    std::mutex requestMutex; // one request at a time on routeSocket; never held together with mutex_man
};

} // namespace netlink_route
