// The one object of the library. In this order: lock, start and stop, event thread, conversion of links and
// addresses, conversion of routes, queries, changes of addresses, of links, of VLANs, of routes.
#include "CacheManager.h"

#include "AddressText.h"
#include "CacheMirror.h"
#include "CacheSearch.h"
#include "CacheSetup.h"
#include "Cancellation.h"
#include "LinkRequest.h"
#include "LockQueue.h"
#include "MyLock.h"
#include "NetlinkPtr.h"
#include "Trace.h"

#include <array>
#include <bitset>
#include <cerrno>
#include <linux/if.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <mutex>
#include <netlink/errno.h>
#include <netlink/route/link/vlan.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

// ---- Lock ----

pthread_mutex_t mutex_man = PTHREAD_MUTEX_INITIALIZER;

namespace netlink_route {

MyLock::MyLock(std::string why) : reason(std::move(why))
{
    NoCancellation const guard;
    TRACE_DEBUG3("try locking mutex because %s", reason.c_str());
    lockMutexMan();
    TRACE_DEBUG3("mutex locked because %s", reason.c_str());
}

MyLock::~MyLock()
{
    NoCancellation const guard;
    TRACE_DEBUG3("unlocking mutex because %s", reason.c_str());
    pthread_mutex_unlock(&mutex_man);
}

// ---- Start and stop ----

CacheManager::CacheManager() : process(getpid())
{
    NoCancellation const guard;
    TRACE_DEBUG1("cache route link initializing at pointer %p", static_cast<void*>(this));
    int result = CacheMirror::allocate(&mngr, mirror);
    if (result < 0) {
        TRACE_ERROR("cache manager allocation failed %s", nl_geterror(-result));
    }
    if (nl_cache_alloc_name("route/link", &linkCache) != 0) {
        TRACE_ERROR("cache manager cache alloc failed route/link");
    }
    if (nl_cache_alloc_name("route/route", &routeCache) != 0) {
        TRACE_ERROR("cache manager cache alloc failed route/route");
    }
    if (nl_cache_alloc_name("route/addr", &addrCache) != 0) {
        TRACE_ERROR("cache manager cache alloc failed route/addr");
    }
    result = addCache(mngr, linkCache, changeCb, this);
    if (result < 0) {
        TRACE_ERROR("cache manager link add failed with %s", nl_geterror(-result));
    }
    result = addRouteCache(mngr, routeCache, changeCb, this);
    if (result < 0) {
        TRACE_ERROR("cache manager route add failed with %s", nl_geterror(-result));
    }
    result = addCache(mngr, addrCache, changeCb, this);
    if (result < 0) {
        TRACE_ERROR("cache manager addr add failed with %s", nl_geterror(-result));
    }
    TRACE_DEBUG1("now creating thread from instance %p", static_cast<void*>(this));
    if (mirror != nullptr) {
        mirror->begin({linkCache, routeCache, addrCache});
        thread = pthread_create(&thread, nullptr, cacheThread, mngr) == 0 ? thread : 0;
    }
    if (thread != 0) {
        mirror->setThread(thread);
    } else { // better no answers than answers that grow old
        freeCaches();
    }
    TRACE_DEBUG2("cache route link init done");
}

CacheManager::~CacheManager()
{
    NoCancellation const guard;
    if (getpid() != process) {
        abandon();
        return;
    }
    if (thread != 0) {
        mirror->stop();
        pthread_cancel(thread);
        pthread_join(thread, nullptr);
    }
    freeCaches();
}

void CacheManager::freeCaches()
{
    mirror.reset(); // first: another cache manager may get this one's address
    if (mngr != nullptr) {
        freeManager(mngr, {linkCache, routeCache, addrCache});
    }
    mngr = nullptr;
    linkCache = nullptr;
    routeCache = nullptr;
    addrCache = nullptr;
}

// In the child of a fork the event thread does not exist: it stayed in the other process, perhaps in the middle of a
// change of the caches, and any lock may be held for ever. So nothing is freed.
void CacheManager::abandon()
{
    routeSocket.abandon();
    if (mirror != nullptr) {
        mirror->abandon();
        static_cast<void>(mirror.release());
    }
}

// ---- Event thread ----

namespace {

// The one place where the event thread can be cancelled: everywhere else cancellation is disabled. Here the thread
// holds no lock and no memory, so nothing has to be released. That matters since pthread_cancel unwinds the stack, and
// with some C++ runtimes the program ends when it meets a frame with a destructor, a try block or a cleanup handler. So
// neither this function nor its caller, CacheManager::cacheThread, may have one. What needs one goes into handleWakeUp,
// which is not inlined into its caller for the same reason.
int pollCancellable(pollfd& record, int milliseconds)
{
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    pthread_testcancel(); // a poll that fails at once does not look whether it was cancelled
    int const result = poll(&record, 1, milliseconds);
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    return result;
}

// One pass, of libnl alone when the cache manager is not one of a CacheManager. The function has the name that its log
// line must show.
void cacheThread(nl_cache_mngr* manager, CacheMirror* mirror)
{
    MyLock const lock("nl_cache_mngr_data_ready");
    int const result = mirror != nullptr ? mirror->apply() : nl_cache_mngr_data_ready(manager);
    if (result < 0) {
        TRACE_ERROR("%s", nl_geterror(-result));
    }
}

[[gnu::noinline]] void handleWakeUp(nl_cache_mngr* manager, CacheMirror* mirror, bool hasArrived) noexcept
{
    if (mirror != nullptr) {
        mirror->takeTurn(hasArrived, [](CacheMirror& own) { cacheThread(nullptr, &own); });
    } else if (hasArrived) {
        cacheThread(manager, nullptr);
    }
}

} // namespace

void CacheManager::changeCb(nl_cache* cache, nl_object* object, int action, void* data)
{
    TRACE_DEBUG2("cache type callback!");
    auto* const manager = static_cast<CacheManager*>(data);
    if (manager != nullptr && manager->mirror != nullptr) {
        manager->mirror->noteChange(cache, object, action);
    }
}

void* CacheManager::cacheThread(void* arg)
{
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    auto* const manager = static_cast<nl_cache_mngr*>(arg);
    CacheMirror* const mirror = CacheMirror::of(manager);
    pollfd record{nl_cache_mngr_get_fd(manager), POLLIN, 0};
    while (true) {
        int const n = pollCancellable(record, mirror != nullptr ? mirror->untilDue() : -1);
        TRACE_DEBUG3("got %d messages from netlink route event socket", n);
        if (n < 0) {
            TRACE_ERROR("got %d error when trying to poll!", n);
            continue;
        }
        handleWakeUp(manager, mirror, n > 0);
    }
}

// ---- Conversion of links and addresses ----

nl_addr* CacheManager::convertToAddress(Address const& address)
{
    NoCancellation const guard;
    std::string const text = address.getAddress();
    if (text.empty()) {
        TRACE_DEBUG2("cannot convert an empty address");
        return nullptr;
    }
    int const family = familyOf(address.getType());
    TRACE_DEBUG3("address is '%s' of type %i address type %i", text.c_str(), family,
                 static_cast<int>(address.getType()));
    // This condition is not the wrong way round. nl_addr_valid accepts an IP address without a prefix length, which is
    // refused here, since the length would be a guess; and, without a family, any text, which is refused as well. An
    // address with a prefix length, and a MAC, are not valid to it: parseAddress decides about those.
    if (nl_addr_valid(text.c_str(), family) != 0) {
        TRACE_ERROR("address is not valid for family type!");
        return nullptr;
    }
    NlAddrPtr result = parseAddress(text, family);
    if (result == nullptr) {
        TRACE_ERROR("failed to parse address %s to nl_addr", address.toString().c_str());
    }
    return result.release();
}

rtnl_addr* CacheManager::convertToAddress(Address const& address, int index)
{
    NoCancellation const guard;
    if (index == 0) {
        TRACE_ERROR("convertToAddress should have a parent different from 0");
        return nullptr;
    }
    AddrPtr result(rtnl_addr_alloc());
    NlAddrPtr const local(convertToAddress(address));
    if (result == nullptr || local == nullptr) {
        return nullptr;
    }
    rtnl_addr_set_local(result.get(), local.get());
    rtnl_addr_set_ifindex(result.get(), index);
    return result.release();
}

Address CacheManager::generateFromAddress(nl_addr* address)
{
    NoCancellation const guard;
    if (address == nullptr) {
        TRACE_ERROR("null pointer!");
        return {"", Address::NONE};
    }
    int const family = nl_addr_get_family(address);
    TRACE_DEBUG3("family is of type %i", family);
    std::array<char, 100> text{};
    nl_addr2str(address, text.data(), text.size());
    TRACE_DEBUG3("got address '%s'", text.data());
    return {text.data(), typeOf(family)};
}

namespace {

// Writes what the interface gives into the link, but for a MAC or broadcast address that the current one has already.
void fillLink(rtnl_link* link, Interface const& interface, Interface const& current)
{
    auto const setNumber = [link](void (*set)(rtnl_link*, unsigned int), unsigned int value) {
        if (value != 0) {
            set(link, value);
        }
    };
    rtnl_link_set_name(link, interface.getName().c_str());
    setNumber(rtnl_link_set_group, interface.getGroup());
    auto const setMac = [link](void (*set)(rtnl_link*, nl_addr*), Address const& address, Address const& known) {
        NlAddrPtr const mac(CacheManager::convertToAddress(address));
        if (mac != nullptr && !isSameMac(mac.get(), known)) {
            set(link, mac.get());
        }
    };
    setMac(rtnl_link_set_addr, interface.getMac(), current.getMac());
    setMac(rtnl_link_set_broadcast, interface.getBroadcast(), current.getBroadcast());
    setNumber(rtnl_link_set_mtu, interface.getMtu());
    setNumber(rtnl_link_set_txqlen, interface.getTxQueueLength());
    if (std::string const alias = interface.getAlias(); !alias.empty()) {
        rtnl_link_set_ifalias(link, alias.c_str());
    }
    setNumber(rtnl_link_set_arptype, interface.getArpType());
    if (std::string const discipline = interface.getQueueingDiscipline(); !discipline.empty()) {
        rtnl_link_set_qdisc(link, discipline.c_str());
    }
    setNumber(rtnl_link_set_promiscuity, interface.getPromiscuityCount());
    setNumber(rtnl_link_set_num_tx_queues, interface.getNbrTxQueues());
    setNumber(rtnl_link_set_num_rx_queues, interface.getNbrRxQueues());
    rtnl_link_set_linkmode(link, interface.isModeDormant() ? IF_LINK_MODE_DORMANT : IF_LINK_MODE_DEFAULT);
    if (interface.isUp()) {
        rtnl_link_set_flags(link, IFF_UP);
    } else {
        rtnl_link_unset_flags(link, IFF_UP);
    }
}

LinkPtr makeLink(Interface const& interface, Interface const& current)
{
    LinkPtr link(rtnl_link_alloc());
    if (link != nullptr) {
        fillLink(link.get(), interface, current);
    }
    return link;
}

LinkPtr makeLink(Vlan const& vlan, Vlan const& current)
{
    LinkPtr link(rtnl_link_vlan_alloc());
    if (link != nullptr) {
        rtnl_link_vlan_set_id(link.get(), static_cast<uint16_t>(vlan.getVlanIndex()));
        fillLink(link.get(), vlan, current);
    }
    return link;
}

} // namespace

void CacheManager::convertToLinkCommonHelper(rtnl_link* link, Interface const& interface)
{
    NoCancellation const guard;
    if (link == nullptr) {
        TRACE_ERROR("null pointer!");
        return;
    }
    fillLink(link, interface, Interface(""));
}

rtnl_link* CacheManager::convertToLink(Interface const& interface)
{
    return makeLink(interface, Interface("")).release();
}

rtnl_link* CacheManager::convertToLink(Vlan const& vlan) { return makeLink(vlan, Vlan("")).release(); }

void CacheManager::generateFromLinkCommonHelper(Interface& interface, rtnl_link* link)
{
    NoCancellation const guard;
    if (link == nullptr) {
        TRACE_ERROR("null pointer!");
        return;
    }
    interface.setIndex(rtnl_link_get_ifindex(link));
    interface.setGroup(rtnl_link_get_group(link));
    if (nl_addr* const mac = rtnl_link_get_addr(link); mac != nullptr) {
        interface.setMac(generateFromAddress(mac));
    }
    if (nl_addr* const broadcast = rtnl_link_get_broadcast(link); broadcast != nullptr) {
        interface.setBroadcast(generateFromAddress(broadcast));
    }
    interface.setMtu(rtnl_link_get_mtu(link));
    interface.setTxQueueLength(rtnl_link_get_txqlen(link));
    if (char const* const alias = rtnl_link_get_ifalias(link); alias != nullptr) {
        interface.setAlias(alias);
    }
    interface.setArpType(rtnl_link_get_arptype(link));
    if (char const* const discipline = rtnl_link_get_qdisc(link); discipline != nullptr) {
        interface.setQueueingDiscipline(discipline);
    }
    interface.setPromiscuityCount(rtnl_link_get_promiscuity(link));
    interface.setNbrTxQueues(rtnl_link_get_num_tx_queues(link));
    interface.setNbrRxQueues(rtnl_link_get_num_rx_queues(link));
    interface.setModeDormant(rtnl_link_get_linkmode(link) == IF_LINK_MODE_DORMANT);
    unsigned int const flags = rtnl_link_get_flags(link);
    TRACE_DEBUG3("flags of link %s", std::bitset<32>(flags).to_string().c_str());
    if ((flags & IFF_UP) != 0) {
        interface.setUp();
    } else {
        interface.setDown();
    }
}

Interface CacheManager::generateFromLink(std::string name, rtnl_link* link)
{
    Interface interface(std::move(name));
    generateFromLinkCommonHelper(interface, link);
    return interface;
}

Vlan CacheManager::generateFromLinkVlan(std::string name, rtnl_link* link)
{
    Vlan vlan(std::move(name));
    generateFromLinkCommonHelper(vlan, link);
    // The getter is not called for other links: depending on how libnl was built, it returns this error there, or
    // aborts the program, as Debian's does.
    bool const isVlan = link != nullptr && rtnl_link_is_vlan(link) != 0;
    vlan.setVlanIndex(isVlan ? rtnl_link_vlan_get_id(link) : -NLE_OPNOTSUPP);
    return vlan;
}

// ---- Conversion of routes ----

namespace {

// Adds a next hop with that gateway, if it converts. False when libnl cannot allocate it.
bool addNextHop(rtnl_route* route, Address const& gateway)
{
    NlAddrPtr const address(CacheManager::convertToAddress(gateway));
    if (address == nullptr) {
        return true;
    }
    NextHopPtr hop(rtnl_route_nh_alloc());
    if (hop == nullptr) {
        return false;
    }
    rtnl_route_nh_set_gateway(hop.get(), address.get());
    rtnl_route_add_nexthop(route, hop.release());
    return true;
}

void setAddress(rtnl_route* route, int (*set)(rtnl_route*, nl_addr*), Address const& address)
{
    NlAddrPtr const converted(CacheManager::convertToAddress(address));
    if (converted != nullptr) {
        set(route, converted.get());
    }
}

// Some versions of libnl keep the destination of a default route as an address of zero bytes, whose text is "none".
Address generateDestination(nl_addr* address)
{
    Address destination = CacheManager::generateFromAddress(address);
    if (nl_addr_get_family(address) == AF_INET && nl_addr_get_len(address) == 0) {
        destination.setAddress("0.0.0.0/0");
    }
    return destination;
}

void generateNextHops(Route& route, rtnl_route* found)
{
    for (int i = 0; i < rtnl_route_get_nnexthops(found); ++i) {
        nl_addr* const gateway = rtnl_route_nh_get_gateway(rtnl_route_nexthop_n(found, i));
        if (gateway == nullptr) {
            continue;
        }
        if (i == 0) {
            route.setGateway(withPrefixLength(CacheManager::generateFromAddress(gateway)));
        } else {
            route.addHop(withPrefixLength(CacheManager::generateFromAddress(gateway)));
        }
    }
}

} // namespace

rtnl_route* CacheManager::convertToRoute(Route const& route)
{
    RoutePtr result(rtnl_route_alloc());
    if (result == nullptr || !addNextHop(result.get(), route.getGateway())) {
        return nullptr;
    }
    rtnl_route_set_scope(result.get(), static_cast<uint8_t>(route.getScope()));
    rtnl_route_set_table(result.get(), route.getTable());
    rtnl_route_set_protocol(result.get(), route.getProtocol());
    rtnl_route_set_tos(result.get(), route.getTos());
    rtnl_route_set_priority(result.get(), route.getPriority());
    rtnl_route_set_family(result.get(), route.getFamily());
    rtnl_route_set_type(result.get(), route.getType());
    setAddress(result.get(), rtnl_route_set_dst, route.getDestination());
    setAddress(result.get(), rtnl_route_set_src, route.getSource());
    setAddress(result.get(), rtnl_route_set_pref_src, route.getSourcePreferred());
    for (Address const& hop : route.getHops()) {
        if (!addNextHop(result.get(), hop)) {
            return nullptr;
        }
    }
    return result.release();
}

Route CacheManager::generateFromRoute(rtnl_route* found)
{
    NoCancellation const guard;
    if (found == nullptr) {
        TRACE_ERROR("null pointer!");
        return Route("");
    }
    Route route("result");
    route.setScope(static_cast<rt_scope_t>(rtnl_route_get_scope(found)));
    route.setTable(static_cast<rt_class_t>(rtnl_route_get_table(found)));
    route.setProtocol(rtnl_route_get_protocol(found));
    route.setTos(rtnl_route_get_tos(found));
    route.setPriority(rtnl_route_get_priority(found));
    route.setFamily(rtnl_route_get_family(found));
    route.setType(rtnl_route_get_type(found));
    if (nl_addr* const destination = rtnl_route_get_dst(found); destination != nullptr) {
        route.setDestination(generateDestination(destination));
    }
    if (nl_addr* const source = rtnl_route_get_src(found); source != nullptr) {
        route.setSource(generateFromAddress(source));
    }
    if (nl_addr* const preferred = rtnl_route_get_pref_src(found); preferred != nullptr) {
        route.setSourcePreferred(generateFromAddress(preferred));
    }
    generateNextHops(route, found);
    return route;
}

// ---- Queries ----

std::vector<Address> CacheManager::getIps(int index) const
{
    NoCancellation const guard;
    MyLock const lock("CacheManager::getIps");
    std::vector<Address> result;
    AddrPtr const found = findIpv4(addrCache, index);
    if (found != nullptr) {
        result.push_back(generateFromAddress(rtnl_addr_get_local(found.get())));
    } else {
        TRACE_DEBUG2("did not found ip address for index %i", index);
    }
    return result;
}

Interface CacheManager::getInterface(std::string name) const
{
    NoCancellation const guard;
    Interface result(name);
    {
        MyLock const lock("getInterface");
        LinkPtr const link = findLink(linkCache, name);
        if (link == nullptr) {
            TRACE_DEBUG2("get interface did not find the link in cache with name %s", name.c_str());
            return result;
        }
        generateFromLinkCommonHelper(result, link.get());
        result.setAddedToKernel(true);
        TRACE_DEBUG2("got interface %s", result.toString().c_str());
    }
    for (Address const& ip : getIps(result.getIndex())) {
        result.addIp(ip, false);
    }
    return result;
}

Vlan CacheManager::getVlan(std::string name) const
{
    NoCancellation const guard;
    Vlan result(name);
    {
        MyLock const lock("getVlan");
        LinkPtr const link = findLink(linkCache, name);
        if (link == nullptr) {
            TRACE_DEBUG2("get interface did not find the link in cache with name %s", name.c_str());
            result.setVlanIndex(0);
            return result;
        }
        result = generateFromLinkVlan(std::move(name), link.get());
        result.setAddedToKernel(true);
    }
    for (Address const& ip : getIps(result.getIndex())) {
        result.addIp(ip, false);
    }
    return result;
}

std::vector<std::string> CacheManager::getListOfInterfaces() const
{
    NoCancellation const guard;
    MyLock const lock("getListOfInterfaces");
    return linkNames(linkCache);
}

Route CacheManager::getRoute(Address destination) const
{
    NoCancellation const guard;
    MyLock const lock("getRoute");
    NlAddrPtr const address(convertToAddress(destination));
    if (address == nullptr) {
        TRACE_ERROR("destination not set correct for finding route");
        return Route("");
    }
    RoutePtr const found = findRoute(routeCache, address.get());
    if (found == nullptr) {
        TRACE_DEBUG2("get route did not find the route in cache with destination %s", destination.getAddress().c_str());
        return Route("");
    }
    Route result = generateFromRoute(found.get());
    result.setAddedToKernel(true);
    return result;
}

// ---- Changes of addresses ----

namespace {

// Sends a request, and returns libnl's result.
template <typename Send>
int sendOn(RouteSocket& socket, Send send)
{
    return socket.getSocket() != nullptr ? send(socket.getSocket()) : -NLE_BAD_SOCK;
}

// One request on a socket that exists for it alone, and is closed on return.
template <typename Send>
int sendOnce(Send send)
{
    RouteSocket socket;
    return sendOn(socket, send);
}

// What a request that was interrupted has left in the socket would be taken for the answer to the next one.
void dropOldAnswers(nl_sock* socket)
{
    char first = 0;
    ssize_t received = 1;
    while (received > 0 || (received < 0 && errno == ENOBUFS)) {
        received = recv(nl_socket_get_fd(socket), &first, sizeof first, MSG_DONTWAIT);
    }
}

} // namespace

template <typename Send>
int CacheManager::sendOnRouteSocket(Send send)
{
    std::lock_guard<std::mutex> const guard(requestMutex);
    return sendOn(routeSocket, [&](nl_sock* socket) {
        dropOldAnswers(socket);
        return send(socket);
    });
}

void CacheManager::waitForEvents() const
{
    if (mirror != nullptr) {
        mirror->waitForEvents();
    }
}

bool CacheManager::add(Address const& address, int index, bool wait)
{
    NoCancellation const guard;
    AddrPtr const object(convertToAddress(address, index));
    if (object == nullptr) {
        TRACE_ERROR("add failed of address");
        return false;
    }
    int const result = sendOnce([&](nl_sock* socket) { return rtnl_addr_add(socket, object.get(), 0); });
    if (result < 0) {
        TRACE_ERROR("failure %s when adding address %s to index %i!", nl_geterror(-result), address.toString().c_str(),
                    index);
        return false;
    }
    if (wait) {
        waitForEvents();
    }
    TRACE_DEBUG1("adding address %s to index %i success!", address.toString().c_str(), index);
    return true;
}

bool CacheManager::remove(Address const& address, int index, bool wait)
{
    NoCancellation const guard;
    AddrPtr const object(convertToAddress(address, index));
    if (object == nullptr) {
        TRACE_ERROR("remove failed of address");
        return false;
    }
    int const result = sendOnce([&](nl_sock* socket) { return rtnl_addr_delete(socket, object.get(), 0); });
    if (result != 0) {
        TRACE_ERROR("delete failed with %s for address %s", nl_geterror(-result), address.toString().c_str());
        return false;
    }
    if (wait) {
        waitForEvents();
    }
    return true;
}

bool CacheManager::add(Address address, int index) { return add(address, index, true); }

bool CacheManager::remove(Address address, int index) { return remove(address, index, true); }

// ---- Changes of links ----

namespace {

// Compares up to `tries` times; after each failed comparison it waits one second and calls `reread`. With a negative
// number it is true without a comparison, with 0 false.
template <typename Matches, typename Reread>
bool waitUntil(int tries, NoCancellation const& guard, Matches matches, Reread reread)
{
    for (int attempt = 0; attempt < tries; ++attempt) {
        if (matches()) {
            return true;
        }
        guard.pause();
        reread();
    }
    return tries < 0;
}

} // namespace

void CacheManager::replaceIps(int index, Interface const& wanted)
{
    for (Address const& ip : getIps(index)) {
        remove(withPrefixLength(ip), index, false);
    }
    for (Address const& ip : wanted.getIps()) {
        add(ip, index, false);
    }
    waitForEvents();
}

int CacheManager::sendLink(rtnl_link* link, std::string const& name, int index, bool wait)
{
    int result = checkLink(link, name);
    if (result != 0) {
        return result;
    }
    // With an index the kernel does not look for the name. Before Linux 5.18 it takes an unknown name together with a
    // group for every link of the group, and the link that was found may have gone meanwhile.
    if (index != 0 && rtnl_link_get_group(link) != 0) {
        rtnl_link_set_ifindex(link, index);
    }
    result = sendOnRouteSocket([&](nl_sock* socket) {
        return index != 0 ? rtnl_link_change(socket, link, link, 0) : rtnl_link_add(socket, link, NLM_F_CREATE);
    });
    if (result < 0) {
        return result;
    }
    bool const isUp = (rtnl_link_get_flags(link) & IFF_UP) != 0;
    if (!isUp && mirror != nullptr) { // the kernel notifies nobody of some changes of a link that is down
        mirror->askForLink(name);
    }
    if (wait) {
        waitForEvents();
    }
    return result;
}

bool CacheManager::update(Interface const& interface, int tries)
{
    NoCancellation const guard;
    TRACE_DEBUG2("update start with interface %s", interface.toString().c_str());
    std::string const name = interface.getName();
    Interface const current = getInterface(name);
    bool const exists = current.getIndex() != 0;
    if (!exists) {
        TRACE_DEBUG1("interface with name %s was not yet added", name.c_str());
    }
    LinkPtr const link = makeLink(interface, current);
    // What is verified of the link shows already, and the replacement of the addresses waits.
    bool const waitsLater = exists && interface == current && !interface.getIps().empty();
    int const result = sendLink(link.get(), name, current.getIndex(), !waitsLater);
    if (result != 0 && exists) {
        TRACE_ERROR("update failed with %s for device id %d and name %s", nl_geterror(-result), interface.getIndex(),
                    name.c_str());
        return false;
    }
    if (result != 0) {
        TRACE_ERROR("adding failed with %s for device id %d and name %s", nl_geterror(-result), interface.getIndex(),
                    name.c_str());
        return false;
    }
    Interface found = getInterface(name);
    auto const reread = [&] { found = getInterface(name); };
    auto const isAsWanted = [&] { return found.getIndex() != 0 && !(interface != found); };
    if (!waitUntil(tries, guard, isAsWanted, reread)) {
        TRACE_ERROR("update failed because expected interface not found");
        TRACE_ERROR("last found Interface %s", found.toString().c_str());
        return false;
    }
    if (interface.getIps().empty()) {
        return true;
    }
    replaceIps(found.getIndex(), interface);
    reread();
    auto const hasWantedIps = [&] { return hasSameIps(found, interface); };
    if (!waitUntil(tries, guard, hasWantedIps, reread)) {
        TRACE_ERROR("update failed because expected ips not found");
        TRACE_ERROR("last found interface %s", found.toString().c_str());
        return false;
    }
    return true;
}

bool CacheManager::remove(Interface const& interface)
{
    NoCancellation const guard;
    std::string const name = interface.getName();
    if (name.empty()) {
        return false;
    }
    LinkPtr const link(rtnl_link_alloc());
    int result = checkLink(link.get(), name);
    if (result == 0) {
        rtnl_link_set_name(link.get(), name.c_str());
        result = sendOnce([&](nl_sock* socket) { return rtnl_link_delete(socket, link.get()); });
    }
    if (result != 0) {
        TRACE_ERROR("delete failed with %s for %s", nl_geterror(-result), name.c_str());
        return false;
    }
    waitForEvents();
    return true;
}

// ---- Changes of VLANs ----

bool CacheManager::update(Vlan const& vlan, int tries)
{
    NoCancellation const guard;
    TRACE_DEBUG2("update start with vlan %s", vlan.toString().c_str());
    std::string const name = vlan.getName();
    auto const dot = name.find('.');
    if (dot == std::string::npos) {
        return false;
    }
    Interface const parent = getInterface(name.substr(0, dot));
    if (parent.getIndex() == 0) {
        TRACE_ERROR("cannot add vlan because parent does not exist yet!");
        return false;
    }
    if (!parent.isUp() && vlan.isUp()) {
        TRACE_ERROR("trying to add and activate vlan but parent is down!");
        return false;
    }
    TRACE_DEBUG2("update start with vlan %s", vlan.toString().c_str());
    Vlan const current = getVlan(name);
    bool const exists = current.getIndex() != 0;
    if (!exists) {
        TRACE_DEBUG1("vlan with name %s was not yet added", name.c_str());
    }
    LinkPtr const link = makeLink(vlan, current);
    if (!exists && link != nullptr) {
        rtnl_link_set_link(link.get(), parent.getIndex());
    }
    int const result = sendLink(link.get(), name, current.getIndex(), true);
    if (result != 0 && exists) {
        TRACE_ERROR("update failed with %s for device id %d and name %s", nl_geterror(-result), vlan.getIndex(),
                    name.c_str());
        return false;
    }
    if (result != 0) {
        TRACE_ERROR("adding failed with %s for device id %d and name %s", nl_geterror(-result), vlan.getVlanIndex(),
                    name.c_str());
        return false;
    }
    return update(vlan, current, tries, guard);
}

bool CacheManager::update(Vlan const& vlan, Vlan found, int tries, NoCancellation const& guard)
{
    std::string const name = vlan.getName();
    auto const isAsWanted = [&] {
        found = getVlan(name);
        return found.getIndex() != 0 && vlan == found;
    };
    if (!waitUntil(tries, guard, isAsWanted, [] {})) {
        TRACE_ERROR("update failed because expected vlan not found");
        TRACE_ERROR("last found vlan %s", found.toString().c_str());
        return false;
    }
    found = getVlan(name);
    if (vlan.getIps().empty()) {
        return true;
    }
    replaceIps(found.getIndex(), vlan);
    found = getVlan(name);
    for (int attempt = 0; attempt < tries; ++attempt) {
        TRACE_DEBUG2("vlan test2 %s", found.toString().c_str());
        if (hasSameIps(found, vlan)) {
            return true;
        }
        guard.pause();
        found = getVlan(name);
        TRACE_DEBUG1("vlan test2 has index id %i", found.getIndex());
    }
    if (tries < 0) {
        return true;
    }
    TRACE_ERROR("update failed because expected ips not found");
    TRACE_ERROR("last found vlan %s", found.toString().c_str());
    return false;
}

bool CacheManager::remove(Vlan const& vlan)
{
    NoCancellation const guard;
    TRACE_INFO("removing vlan %s", vlan.getName().c_str());
    return remove(static_cast<Interface const&>(vlan));
}

// ---- Changes of routes ----

bool CacheManager::update(Route const& route, int /*tries*/)
{
    NoCancellation const guard;
    TRACE_DEBUG2("updating route %s", route.toString().c_str());
    RoutePtr const object(convertToRoute(route));
    int result = -NLE_NOMEM;
    if (object != nullptr) {
        result =
            sendOnRouteSocket([&](nl_sock* socket) { return rtnl_route_add(socket, object.get(), NLM_F_REQUEST); });
    }
    if (result != 0) {
        TRACE_ERROR("add failed with %s", nl_geterror(-result));
        TRACE_ERROR("for route %s", route.toString().c_str());
        return false;
    }
    waitForEvents();
    return true;
}

bool CacheManager::remove(Route const& route)
{
    NoCancellation const guard;
    RoutePtr object(convertToRoute(route));
    int result = -NLE_NOMEM;
    if (object != nullptr) {
        result = sendOnce([&](nl_sock* socket) { return rtnl_route_delete(socket, object.get(), 0); });
    }
    if (result != 0) {
        TRACE_ERROR("delete failed with %s for route %s", nl_geterror(-result), route.getName().c_str());
        return false;
    }
    object.reset();
    waitForEvents(); // a signal may end the pause at once
    guard.pause();
    return true;
}

} // namespace netlink_route
