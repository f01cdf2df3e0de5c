// The one object of the library. In this order: lock, start and stop, event thread, conversion of links and
// addresses, conversion of routes, queries, changes of addresses, of links, of VLANs, of routes.
#include "CacheManager.h"

#include "CacheMirror.h"
#include "MyLock.h"
#include "NetlinkPtr.h"
#include "Trace.h"

#include <algorithm>
#include <array>
#include <bitset>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <linux/if.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <map>
#include <mutex>
#include <netlink/cache.h>
#include <netlink/errno.h>
#include <netlink/route/link/vlan.h>
#include <poll.h>
#include <string_view>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

// ---- Lock ----

pthread_mutex_t mutex_man = PTHREAD_MUTEX_INITIALIZER;

namespace netlink_route {

MyLock::MyLock(std::string why) : reason(std::move(why))
{
    TRACE_DEBUG3("try locking mutex because %s", reason.c_str());
    pthread_mutex_lock(&mutex_man);
    TRACE_DEBUG3("mutex locked because %s", reason.c_str());
}

MyLock::~MyLock()
{
    TRACE_DEBUG3("unlocking mutex because %s", reason.c_str());
    pthread_mutex_unlock(&mutex_man);
}

// ---- Start and stop ----

namespace {

// The caches of the running managers, where the event threads find them: their argument is the cache manager alone.
std::mutex registryMutex;
std::map<nl_cache_mngr*, CacheMirror::Caches> registry;

void remember(nl_cache_mngr* manager, CacheMirror::Caches const& caches)
{
    const std::lock_guard<std::mutex> guard(registryMutex);
    registry[manager] = caches;
}

void forget(nl_cache_mngr* manager)
{
    const std::lock_guard<std::mutex> guard(registryMutex);
    registry.erase(manager);
}

CacheMirror::Caches cachesOf(nl_cache_mngr* manager)
{
    const std::lock_guard<std::mutex> guard(registryMutex);
    const auto found = registry.find(manager);
    return found != registry.end() ? found->second : CacheMirror::Caches();
}

// libnl 3.7 aborts when it can open only the first of the two sockets that a cache manager needs.
int probeTwoSockets()
{
    const int first = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    const int second = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    const int result = second >= 0 ? 0 : -nl_syserr2nlerr(errno);
    for (const int descriptor : {first, second}) {
        if (descriptor >= 0) {
            close(descriptor);
        }
    }
    return result;
}

int allocateManager(nl_cache_mngr** manager)
{
    const int probe = probeTwoSockets();
    return probe == 0 ? nl_cache_mngr_alloc(nullptr, NETLINK_ROUTE, NL_AUTO_PROVIDE, manager) : probe;
}

// libnl's 32 KiB overrun at a few hundred new links at once. The memory is used only while a burst waits.
void enlargeReceiveBuffer(int descriptor)
{
    const int bytes = 8 * 1024 * 1024;
    // Beyond the host's limit only with CAP_NET_ADMIN; without it, as far as the limit goes.
    if (setsockopt(descriptor, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) != 0) {
        setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
    }
}

// Its notifications make libnl add a second, stale object for a link that has IPv6.
void leaveIpv6InterfaceGroup(int descriptor)
{
    const int group = RTNLGRP_IPV6_IFINFO;
    setsockopt(descriptor, SOL_NETLINK, NETLINK_DROP_MEMBERSHIP, &group, sizeof group);
}

// Has nexthop objects notified: the event thread must wake when one goes, since its routes go silently. Kernels before
// 5.3 have none, and no such group.
void joinNextHopGroup(int descriptor)
{
    const int group = RTNLGRP_NEXTHOP;
    setsockopt(descriptor, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group);
}

// Hands the cache over to the manager. A cache that it does not take is freed, and its pointer nulled.
int addCache(nl_cache_mngr* manager, nl_cache*& cache, change_func_t callback, void* data)
{
    if (cache == nullptr) {
        return 0;
    }
    const int result = manager != nullptr ? nl_cache_mngr_add_cache(manager, cache, callback, data) : 0;
    if (manager == nullptr || result < 0) {
        nl_cache_free(cache);
        cache = nullptr;
        return result;
    }
    // The manager provides the cache to the whole process, where libnl's parsers would use it without the lock.
    nl_cache_mngt_unprovide(cache);
    return result;
}

// Returns the thread, or 0.
pthread_t startThread(void* (*body)(void*), nl_cache_mngr* manager, CacheMirror::Caches const& caches)
{
    if (manager == nullptr) {
        return 0;
    }
    remember(manager, caches);
    pthread_t thread = 0;
    return pthread_create(&thread, nullptr, body, manager) == 0 ? thread : 0;
}

} // namespace

CacheManager::CacheManager()
{
    TRACE_DEBUG1("cache route link initializing at pointer %p", static_cast<void*>(this));
    int result = allocateManager(&mngr);
    if (result < 0) {
        TRACE_ERROR("cache manager allocation failed %s", nl_geterror(-result));
    } else {
        enlargeReceiveBuffer(nl_cache_mngr_get_fd(mngr));
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
    result = addCache(mngr, routeCache, changeCb, this);
    if (result < 0) {
        TRACE_ERROR("cache manager route add failed with %s", nl_geterror(-result));
    }
    result = addCache(mngr, addrCache, changeCb, this);
    if (result < 0) {
        TRACE_ERROR("cache manager addr add failed with %s", nl_geterror(-result));
    }
    if (mngr != nullptr) {
        leaveIpv6InterfaceGroup(nl_cache_mngr_get_fd(mngr));
        joinNextHopGroup(nl_cache_mngr_get_fd(mngr));
    }
    TRACE_DEBUG1("now creating thread from instance %p", static_cast<void*>(this));
    thread = startThread(cacheThread, mngr, {linkCache, routeCache, addrCache});
    if (thread == 0) { // better no answers than answers that grow old
        freeCaches();
    }
    TRACE_DEBUG2("cache route link init done");
}

CacheManager::~CacheManager()
{
    if (thread != 0) {
        pthread_cancel(thread);
        pthread_join(thread, nullptr);
    }
    freeCaches();
}

void CacheManager::freeCaches()
{
    if (mngr != nullptr) {
        forget(mngr);
        nl_cache_mngr_free(mngr);
    }
    mngr = nullptr;
    linkCache = nullptr;
    routeCache = nullptr;
    addrCache = nullptr;
}

// ---- Event thread ----

namespace {

// The one place where the event thread can be cancelled: it holds nothing here that must be released in
// libnl's frames, which destructors do not survive on every platform.
int pollCancellable(pollfd& record, int milliseconds)
{
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    const int result = poll(&record, 1, milliseconds);
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    return result;
}

} // namespace

void CacheManager::changeCb(nl_cache* /*cache*/, nl_object* /*object*/, int /*action*/, void* /*data*/)
{
    TRACE_DEBUG2("cache type callback!");
}

void* CacheManager::cacheThread(void* arg)
{
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    auto* const manager = static_cast<nl_cache_mngr*>(arg);
    CacheMirror mirror(manager, cachesOf(manager));
    pollfd record{nl_cache_mngr_get_fd(manager), POLLIN, 0};
    while (true) {
        int n = 0;
        while (n == 0) {
            n = pollCancellable(record, mirror.mend());
        }
        TRACE_DEBUG3("got %d messages from netlink route event socket", n);
        if (n < 0) {
            TRACE_ERROR("got %d error when trying to poll!", n);
            continue;
        }
        int result = 0;
        {
            const MyLock lock("nl_cache_mngr_data_ready");
            result = nl_cache_mngr_data_ready(manager);
            if (result < 0) {
                TRACE_ERROR("%s", nl_geterror(-result));
            }
        }
        mirror.note(result);
    }
}

// ---- Conversion of links and addresses ----

namespace {

bool holdsNul(std::string const& text) { return text.find('\0') != std::string::npos; }

int familyOf(Address::TYPE type)
{
    switch (type) {
    case Address::MAC:
        return AF_LLC;
    case Address::IPV4:
        return AF_INET;
    default:
        return AF_UNSPEC;
    }
}

Address::TYPE typeOf(int family)
{
    switch (family) {
    case AF_LLC:
        return Address::MAC;
    case AF_INET:
        return Address::IPV4;
    default:
        return Address::OTHER;
    }
}

// libnl ignores what follows a number, takes octal and hexadecimal ones, cuts a length that does not fit to another
// one, and gives a length to an address without bytes. Here a prefix length is a decimal number from 0 to 32, the
// one that libnl has read, of an address that has bytes.
bool hasSoundPrefixLength(std::string const& text, nl_addr* parsed)
{
    const auto slash = text.find('/');
    if (slash == std::string::npos) {
        return true;
    }
    const char* const end = text.data() + text.size();
    unsigned int length = 0;
    const auto [rest, error] = std::from_chars(text.data() + slash + 1, end, length);
    return error == std::errc() && rest == end && length <= 32 && length == nl_addr_get_prefixlen(parsed) &&
           nl_addr_get_len(parsed) != 0;
}

// Six pairs of hexadecimal digits: libnl takes shorter ones, and ignores what follows the sixth.
bool isSoundMac(std::string const& text)
{
    constexpr std::string_view form = "xx:xx:xx:xx:xx:xx";
    return std::equal(text.begin(), text.end(), form.begin(), form.end(), [](unsigned char c, char expected) {
        return expected == ':' ? c == ':' : std::isxdigit(c) != 0;
    });
}

// The libnl address of the text, or null.
NlAddrPtr parseAddress(std::string const& text, int family)
{
    nl_addr* parsed = nullptr;
    if (holdsNul(text) || nl_addr_parse(text.c_str(), family, &parsed) != 0) {
        return nullptr;
    }
    NlAddrPtr result(parsed);
    const bool sound = family == AF_LLC ? isSoundMac(text) : hasSoundPrefixLength(text, parsed);
    return sound ? std::move(result) : nullptr;
}

std::string toBits(unsigned int flags) { return std::bitset<32>(flags).to_string(); }

} // namespace

nl_addr* CacheManager::convertToAddress(Address const& address)
{
    const std::string text = address.getAddress();
    if (text.empty()) {
        TRACE_DEBUG2("cannot convert an empty address");
        return nullptr;
    }
    const int family = familyOf(address.getType());
    TRACE_DEBUG3("address is '%s' of type %i address type %i", text.c_str(), family,
                 static_cast<int>(address.getType()));
    // nl_addr_valid accepts a bare IP address, whose prefix length would be a guess, and every text of no family: both
    // are refused. It knows neither prefix lengths nor link-layer addresses: what it does not accept is parsed.
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
    if (index == 0) {
        TRACE_ERROR("convertToAddress should have a parent different from 0");
        return nullptr;
    }
    AddrPtr result(rtnl_addr_alloc());
    const NlAddrPtr local(convertToAddress(address));
    if (result == nullptr || local == nullptr) {
        return nullptr;
    }
    rtnl_addr_set_local(result.get(), local.get());
    rtnl_addr_set_ifindex(result.get(), index);
    return result.release();
}

Address CacheManager::generateFromAddress(nl_addr* address)
{
    if (address == nullptr) {
        TRACE_ERROR("null pointer!");
        return {"", Address::NONE};
    }
    const int family = nl_addr_get_family(address);
    TRACE_DEBUG3("family is of type %i", family);
    std::array<char, 100> text{};
    nl_addr2str(address, text.data(), text.size());
    TRACE_DEBUG3("got address '%s'", text.data());
    return {text.data(), typeOf(family)};
}

void CacheManager::convertToLinkCommonHelper(rtnl_link* link, Interface const& interface)
{
    const auto setNumber = [link](void (*set)(rtnl_link*, unsigned int), unsigned int value) {
        if (value != 0) {
            set(link, value);
        }
    };
    rtnl_link_set_name(link, interface.getName().c_str());
    setNumber(rtnl_link_set_group, interface.getGroup());
    if (const NlAddrPtr mac(convertToAddress(interface.getMac())); mac != nullptr) {
        rtnl_link_set_addr(link, mac.get());
    }
    if (const NlAddrPtr broadcast(convertToAddress(interface.getBroadcast())); broadcast != nullptr) {
        rtnl_link_set_broadcast(link, broadcast.get());
    }
    setNumber(rtnl_link_set_mtu, interface.getMtu());
    setNumber(rtnl_link_set_txqlen, interface.getTxQueueLength());
    if (const std::string alias = interface.getAlias(); !alias.empty()) {
        rtnl_link_set_ifalias(link, alias.c_str());
    }
    setNumber(rtnl_link_set_arptype, interface.getArpType());
    if (const std::string discipline = interface.getQueueingDiscipline(); !discipline.empty()) {
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

rtnl_link* CacheManager::convertToLink(Interface const& interface)
{
    LinkPtr link(rtnl_link_alloc());
    if (link != nullptr) {
        convertToLinkCommonHelper(link.get(), interface);
    }
    return link.release();
}

rtnl_link* CacheManager::convertToLink(Vlan const& vlan)
{
    LinkPtr link(rtnl_link_vlan_alloc());
    if (link != nullptr) {
        rtnl_link_vlan_set_id(link.get(), static_cast<uint16_t>(vlan.getVlanIndex()));
        convertToLinkCommonHelper(link.get(), vlan);
    }
    return link.release();
}

void CacheManager::generateFromLinkCommonHelper(Interface& interface, rtnl_link* link)
{
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
    if (const char* const alias = rtnl_link_get_ifalias(link); alias != nullptr) {
        interface.setAlias(alias);
    }
    interface.setArpType(rtnl_link_get_arptype(link));
    if (const char* const discipline = rtnl_link_get_qdisc(link); discipline != nullptr) {
        interface.setQueueingDiscipline(discipline);
    }
    interface.setPromiscuityCount(rtnl_link_get_promiscuity(link));
    interface.setNbrTxQueues(rtnl_link_get_num_tx_queues(link));
    interface.setNbrRxQueues(rtnl_link_get_num_rx_queues(link));
    interface.setModeDormant(rtnl_link_get_linkmode(link) == IF_LINK_MODE_DORMANT);
    const unsigned int flags = rtnl_link_get_flags(link);
    TRACE_DEBUG3("flags of link %s", toBits(flags).c_str());
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
    // Of a link of another kind libnl's getter returns this, or aborts the program, as it was built.
    const bool isVlan = rtnl_link_is_vlan(link) != 0;
    vlan.setVlanIndex(isVlan ? rtnl_link_vlan_get_id(link) : -NLE_OPNOTSUPP);
    return vlan;
}

// ---- Conversion of routes ----

namespace {

// Adds a next hop with that gateway, if it converts. False when libnl cannot allocate it.
bool addNextHop(rtnl_route* route, Address const& gateway)
{
    const NlAddrPtr address(CacheManager::convertToAddress(gateway));
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
    const NlAddrPtr converted(CacheManager::convertToAddress(address));
    if (converted != nullptr) {
        set(route, converted.get());
    }
}

// A default route's destination has no bytes in some versions of libnl, and reads as "none" there.
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
            route.setGateway(CacheManager::generateFromAddress(gateway));
        } else {
            route.addHop(CacheManager::generateFromAddress(gateway));
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

namespace {

rtnl_link* toLink(nl_object* object) { return reinterpret_cast<rtnl_link*>(object); }

// The kernel notifies a link once more for IPv6, and a port for its bridge. libnl keeps these as further objects, by
// their family, which are not the link. A bridge itself has the family, too.
bool isTwin(rtnl_link* link)
{
    const char* const kind = rtnl_link_get_type(link);
    const bool isBridge = kind != nullptr && std::strcmp(kind, "bridge") == 0;
    return rtnl_link_get_family(link) != AF_UNSPEC && !isBridge;
}

// The link of that name, or null.
LinkPtr findLink(nl_cache* cache, std::string const& name)
{
    if (cache == nullptr || holdsNul(name)) {
        return nullptr;
    }
    LinkPtr first(rtnl_link_get_by_name(cache, name.c_str()));
    if (first == nullptr || !isTwin(first.get())) {
        return first;
    }
    for (nl_object* object = nl_cache_get_first(cache); object != nullptr; object = nl_cache_get_next(object)) {
        rtnl_link* const link = toLink(object);
        const char* const linkName = rtnl_link_get_name(link);
        if (linkName != nullptr && name == linkName && !isTwin(link)) {
            nl_object_get(object);
            return LinkPtr(link);
        }
    }
    return nullptr;
}

AddrPtr findIpv4(nl_cache* cache, int index)
{
    const AddrPtr filter(rtnl_addr_alloc());
    if (cache == nullptr || filter == nullptr) {
        return nullptr;
    }
    rtnl_addr_set_ifindex(filter.get(), index);
    rtnl_addr_set_family(filter.get(), AF_INET);
    return AddrPtr(reinterpret_cast<rtnl_addr*>(nl_cache_find(cache, OBJ_CAST(filter.get()))));
}

RoutePtr findRouteTo(nl_cache* cache, nl_addr* destination)
{
    const RoutePtr filter(rtnl_route_alloc());
    if (cache == nullptr || filter == nullptr || destination == nullptr) {
        return nullptr;
    }
    rtnl_route_set_dst(filter.get(), destination);
    return RoutePtr(reinterpret_cast<rtnl_route*>(nl_cache_find(cache, OBJ_CAST(filter.get()))));
}

// The default route has two forms, an address without bytes and 0.0.0.0/0. Either finds it.
RoutePtr findRoute(nl_cache* cache, nl_addr* destination)
{
    RoutePtr found = findRouteTo(cache, destination);
    const bool isDefault = nl_addr_get_prefixlen(destination) == 0 && nl_addr_iszero(destination) != 0;
    if (found != nullptr || !isDefault) {
        return found;
    }
    const std::array<unsigned char, 4> zero{};
    const NlAddrPtr other(nl_addr_build(AF_INET, zero.data(), nl_addr_get_len(destination) == 0 ? zero.size() : 0));
    if (other != nullptr) {
        nl_addr_set_prefixlen(other.get(), 0);
    }
    return findRouteTo(cache, other.get());
}

} // namespace

std::vector<Address> CacheManager::getIps(int index) const
{
    const MyLock lock("CacheManager::getIps");
    std::vector<Address> result;
    const AddrPtr found = findIpv4(addrCache, index);
    if (found != nullptr) {
        result.push_back(generateFromAddress(rtnl_addr_get_local(found.get())));
    } else {
        TRACE_DEBUG2("did not found ip address for index %i", index);
    }
    return result;
}

Interface CacheManager::getInterface(std::string name) const
{
    Interface result(name);
    {
        const MyLock lock("getInterface");
        const LinkPtr link = findLink(linkCache, name);
        if (link == nullptr) {
            TRACE_DEBUG2("get interface did not find the link in cache with name %s", name.c_str());
            return result;
        }
        result = generateFromLink(std::move(name), link.get());
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
    Vlan result(name);
    {
        const MyLock lock("getVlan");
        const LinkPtr link = findLink(linkCache, name);
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
    const MyLock lock("getListOfInterfaces");
    std::vector<std::string> names;
    nl_object* object = linkCache != nullptr ? nl_cache_get_first(linkCache) : nullptr;
    for (; object != nullptr; object = nl_cache_get_next(object)) {
        const char* const name = rtnl_link_get_name(toLink(object));
        if (name != nullptr && !isTwin(toLink(object))) {
            names.emplace_back(name);
        }
    }
    return names;
}

Route CacheManager::getRoute(Address destination) const
{
    const MyLock lock("getRoute");
    const NlAddrPtr address(convertToAddress(destination));
    if (address == nullptr) {
        TRACE_ERROR("destination not set correct for finding route");
        return Route("");
    }
    const RoutePtr found = findRoute(routeCache, address.get());
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

// A request returns libnl's result. Without a cache manager, the manager could not start, and nothing is sent.
template <typename Send>
int sendOn(RouteSocket& socket, nl_cache_mngr* manager, Send send)
{
    const bool able = manager != nullptr && socket.getSocket() != nullptr;
    return able ? send(socket.getSocket()) : -NLE_BAD_SOCK;
}

// One request on a socket that exists for it alone, and is closed on return.
template <typename Send>
int sendOnce(nl_cache_mngr* manager, Send send)
{
    RouteSocket socket;
    return sendOn(socket, manager, send);
}

} // namespace

bool CacheManager::add(Address address, int index)
{
    const AddrPtr object(convertToAddress(address, index));
    if (object == nullptr) {
        TRACE_ERROR("add failed of address");
        return false;
    }
    const int result = sendOnce(mngr, [&](nl_sock* socket) { return rtnl_addr_add(socket, object.get(), 0); });
    if (result < 0) {
        TRACE_ERROR("failure %s when adding address %s to index %i!", nl_geterror(-result), address.toString().c_str(),
                    index);
        return false;
    }
    TRACE_DEBUG1("adding address %s to index %i success!", address.toString().c_str(), index);
    return true;
}

bool CacheManager::remove(Address address, int index)
{
    const AddrPtr object(convertToAddress(address, index));
    if (object == nullptr) {
        TRACE_ERROR("remove failed of address");
        return false;
    }
    const int result = sendOnce(mngr, [&](nl_sock* socket) { return rtnl_addr_delete(socket, object.get(), 0); });
    if (result != 0) {
        TRACE_ERROR("delete failed with %s for address %s", nl_geterror(-result), address.toString().c_str());
        return false;
    }
    return true;
}

// ---- Changes of links ----

namespace {

// 0 when the link may be sent. A longer name would be cut to another link's, and an empty one together with a
// group means every link of the group.
int checkLink(rtnl_link* link, std::string const& name)
{
    const bool validName = !name.empty() && name.size() < IFNAMSIZ && !holdsNul(name);
    if (!validName) {
        return -NLE_INVAL;
    }
    return link != nullptr ? 0 : -NLE_NOMEM;
}

// An ordinary NIC that is up refuses even the address that it has.
template <typename Wanted>
Wanted withoutKnownAddresses(Wanted wanted, Interface const& current)
{
    const auto isSame = [](Address const& lhs, Address const& rhs) {
        return strcasecmp(lhs.getAddress().c_str(), rhs.getAddress().c_str()) == 0;
    };
    const Address notGiven("", Address::MAC);
    if (isSame(wanted.getMac(), current.getMac())) {
        wanted.setMac(notGiven);
    }
    if (isSame(wanted.getBroadcast(), current.getBroadcast())) {
        wanted.setBroadcast(notGiven);
    }
    return wanted;
}

// Up to `tries` attempts, one second apart. A negative number of them passes at once.
template <typename Matches, typename Reread>
bool isVerified(int tries, Matches matches, Reread reread)
{
    for (int attempt = 0; attempt < tries; ++attempt) {
        if (matches()) {
            return true;
        }
        sleep(1);
        reread();
    }
    return tries < 0;
}

bool hasSameIps(Interface const& found, Interface const& wanted)
{
    const std::vector<Address> foundIps = found.getIps();
    const std::vector<Address> wantedIps = wanted.getIps();
    return foundIps.size() == wantedIps.size() &&
           (foundIps.empty() || foundIps.front().getAddress() == wantedIps.front().getAddress());
}

void replaceIps(CacheManager& manager, int index, Interface const& wanted)
{
    for (Address const& ip : manager.getIps(index)) {
        manager.remove(ip, index);
    }
    for (Address const& ip : wanted.getIps()) {
        manager.add(ip, index);
    }
}

} // namespace

int CacheManager::sendLink(rtnl_link* link, std::string const& name, bool exists)
{
    const int check = checkLink(link, name);
    if (check != 0) {
        return check;
    }
    const std::lock_guard<std::mutex> guard(requestMutex);
    return sendOn(routeSocket, mngr, [&](nl_sock* socket) {
        return exists ? rtnl_link_change(socket, link, link, 0) : rtnl_link_add(socket, link, NLM_F_CREATE);
    });
}

bool CacheManager::update(Interface const& interface, int tries)
{
    TRACE_DEBUG2("update start with interface %s", interface.toString().c_str());
    const std::string name = interface.getName();
    const Interface current = getInterface(name);
    const bool exists = current.getIndex() != 0;
    if (!exists) {
        TRACE_DEBUG1("interface with name %s was not yet added", name.c_str());
    }
    const LinkPtr link(convertToLink(withoutKnownAddresses(interface, current)));
    const int result = sendLink(link.get(), name, exists);
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
    const auto reread = [&] { found = getInterface(name); };
    if (!isVerified(
            tries, [&] { return found.getIndex() != 0 && !(interface != found); }, reread)) {
        TRACE_ERROR("update failed because expected interface not found");
        TRACE_ERROR("last found Interface %s", found.toString().c_str());
        return false;
    }
    if (interface.getIps().empty()) {
        return true;
    }
    replaceIps(*this, found.getIndex(), interface);
    reread();
    if (!isVerified(
            tries, [&] { return hasSameIps(found, interface); }, reread)) {
        TRACE_ERROR("update failed because expected ips not found");
        TRACE_ERROR("last found interface %s", found.toString().c_str());
        return false;
    }
    return true;
}

bool CacheManager::remove(Interface const& interface)
{
    const std::string name = interface.getName();
    if (name.empty()) {
        return false;
    }
    const LinkPtr link(rtnl_link_alloc());
    int result = checkLink(link.get(), name);
    if (result == 0) {
        rtnl_link_set_name(link.get(), name.c_str());
        result = sendOnce(mngr, [&](nl_sock* socket) { return rtnl_link_delete(socket, link.get()); });
    }
    if (result != 0) {
        TRACE_ERROR("delete failed with %s for %s", nl_geterror(-result), name.c_str());
        return false;
    }
    return true;
}

// ---- Changes of VLANs ----

bool CacheManager::update(Vlan const& wanted, Interface const& parent, Vlan const& current)
{
    const std::string name = wanted.getName();
    const bool exists = current.getIndex() != 0;
    if (!exists) {
        TRACE_DEBUG1("vlan with name %s was not yet added", name.c_str());
    }
    const LinkPtr link(convertToLink(withoutKnownAddresses(wanted, current)));
    if (!exists && link != nullptr) {
        rtnl_link_set_link(link.get(), parent.getIndex());
    }
    const int result = sendLink(link.get(), name, exists);
    if (result != 0 && exists) {
        TRACE_ERROR("update failed with %s for device id %d and name %s", nl_geterror(-result), wanted.getIndex(),
                    name.c_str());
    }
    if (result != 0 && !exists) {
        TRACE_ERROR("adding failed with %s for device id %d and name %s", nl_geterror(-result), wanted.getVlanIndex(),
                    name.c_str());
    }
    return result == 0;
}

bool CacheManager::update(Vlan const& wanted, Vlan found, int tries)
{
    for (int attempt = 0; attempt < tries; ++attempt) {
        TRACE_DEBUG2("vlan test2 %s", found.toString().c_str());
        if (hasSameIps(found, wanted)) {
            return true;
        }
        sleep(1);
        found = getVlan(wanted.getName());
        TRACE_DEBUG1("vlan test2 has index id %i", found.getIndex());
    }
    if (tries < 0) {
        return true;
    }
    TRACE_ERROR("update failed because expected ips not found");
    TRACE_ERROR("last found vlan %s", found.toString().c_str());
    return false;
}

bool CacheManager::update(Vlan const& vlan, int tries)
{
    TRACE_DEBUG2("update start with vlan %s", vlan.toString().c_str());
    const std::string name = vlan.getName();
    const auto dot = name.find('.');
    if (dot == std::string::npos) {
        return false;
    }
    const Interface parent = getInterface(name.substr(0, dot));
    if (parent.getIndex() == 0) {
        TRACE_ERROR("cannot add vlan because parent does not exist yet!");
        return false;
    }
    if (!parent.isUp() && vlan.isUp()) {
        TRACE_ERROR("trying to add and activate vlan but parent is down!");
        return false;
    }
    TRACE_DEBUG2("update start with vlan %s", vlan.toString().c_str());
    Vlan found = getVlan(name);
    if (!update(vlan, parent, found)) {
        return false;
    }
    const auto isAsWanted = [&] {
        found = getVlan(name);
        return found.getIndex() != 0 && vlan == found;
    };
    if (!isVerified(tries, isAsWanted, [] {})) {
        TRACE_ERROR("update failed because expected vlan not found");
        TRACE_ERROR("last found vlan %s", found.toString().c_str());
        return false;
    }
    found = getVlan(name);
    if (vlan.getIps().empty()) {
        return true;
    }
    replaceIps(*this, found.getIndex(), vlan);
    return update(vlan, getVlan(name), tries);
}

bool CacheManager::remove(Vlan const& vlan)
{
    TRACE_INFO("removing vlan %s", vlan.getName().c_str());
    return remove(static_cast<Interface const&>(vlan));
}

// ---- Changes of routes ----

bool CacheManager::update(Route const& route, int /*tries*/)
{
    TRACE_DEBUG2("updating route %s", route.toString().c_str());
    const RoutePtr object(convertToRoute(route));
    int result = -NLE_NOMEM;
    if (object != nullptr) {
        const std::lock_guard<std::mutex> guard(requestMutex);
        result = sendOn(routeSocket, mngr,
                        [&](nl_sock* socket) { return rtnl_route_add(socket, object.get(), NLM_F_REQUEST); });
    }
    if (result != 0) {
        TRACE_ERROR("add failed with %s", nl_geterror(-result));
        TRACE_ERROR("for route %s", route.toString().c_str());
        return false;
    }
    return true;
}

bool CacheManager::remove(Route const& route)
{
    RoutePtr object(convertToRoute(route));
    int result = -NLE_NOMEM;
    if (object != nullptr) {
        result = sendOnce(mngr, [&](nl_sock* socket) { return rtnl_route_delete(socket, object.get(), 0); });
    }
    if (result != 0) {
        TRACE_ERROR("delete failed with %s for route %s", nl_geterror(-result), route.getName().c_str());
        return false;
    }
    object.reset();
    sleep(1);
    return true;
}

} // namespace netlink_route
