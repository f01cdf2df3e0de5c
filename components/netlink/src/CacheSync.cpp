#include "CacheSync.h"

#include "CacheSetup.h"
#include "KernelNumbers.h"
#include "LockQueue.h"
#include "Memory.h"
#include "MyLock.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <netlink/errno.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <utility>

#ifndef NETLINK_GET_STRICT_CHK // Linux before 4.20
#define NETLINK_GET_STRICT_CHK 12
#endif

namespace netlink_route {

// ---- Reading ----

namespace {

struct Answer {
    Objects& objects;
    std::atomic<bool> const& stopped;
    bool complete = true;
};

bool isException(nl_object* object)
{
    return std::strcmp(nl_object_get_type(object), "route/route") == 0 &&
           (rtnl_route_get_flags(reinterpret_cast<rtnl_route*>(object)) & RTM_F_CLONED) != 0;
}

void keepObject(nl_object* object, void* argument)
{
    auto& answer = *static_cast<Answer*>(argument);
    if (isException(object)) {
        return;
    }
    nl_object_get(object);
    ObjectPtr owner(object);
    answer.complete = fitsInMemory([&] { answer.objects.push_back(std::move(owner)); }) && answer.complete;
}

int keepMessage(nl_msg* message, void* argument)
{
    auto& answer = *static_cast<Answer*>(argument);
    int const result = nl_msg_parse(message, keepObject, argument);
    answer.complete = answer.complete && !answer.stopped && (result >= 0 || result == -NLE_MSGTYPE_NOSUPPORT);
    return answer.complete ? NL_OK : NL_STOP;
}

} // namespace

int KernelReader::connect()
{
    if (connected) {
        return 0;
    }
    if (socket == nullptr) {
        socket.reset(nl_socket_alloc());
    }
    if (socket == nullptr) {
        return -NLE_NOMEM;
    }
    nl_socket_disable_auto_ack(socket.get()); // one answer for one request
    int const result = nl_connect(socket.get(), NETLINK_ROUTE);
    if (result < 0) {
        return result;
    }
    connected = true;
    int const descriptor = nl_socket_get_fd(socket.get());
    int const on = 1;
    strict = setsockopt(descriptor, SOL_NETLINK, NETLINK_GET_STRICT_CHK, &on, sizeof on) == 0;
    timeval const longest{0, 100000}; // in case the answer never comes
    setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &longest, sizeof longest);
    return 0;
}

// After a failure the rest of the answer may still arrive: the next request opens another socket.
void KernelReader::disconnect()
{
    if (connected) {
        nl_close(socket.get());
        connected = false;
    }
}

// Returns libnl's result. An unknown link (-NLE_NODEV) is a complete answer.
int KernelReader::request(int type, int flags, void* body, std::size_t size, Objects& answer)
{
    int result = stopped ? -NLE_INTR : connect();
    if (result == 0) {
        Answer collected{answer, stopped};
        nl_socket_modify_cb(socket.get(), NL_CB_VALID, NL_CB_CUSTOM, keepMessage, &collected);
        ParsingAllowed const allowed;
        result = nl_send_simple(socket.get(), type, flags, body, size);
        result = result < 0 ? result : nl_recvmsgs_default(socket.get());
        result = collected.complete ? result : -NLE_NOMEM;
    }
    if (result < 0 && result != -NLE_NODEV) {
        disconnect();
    }
    return result;
}

std::optional<Objects> KernelReader::dump(int type, void* body, std::size_t size)
{
    Objects answer;
    int const result = request(type, NLM_F_DUMP, body, size, answer);
    if (result < 0 && result != -NLE_NODEV) {
        return std::nullopt;
    }
    return answer;
}

std::optional<Objects> KernelReader::readLinks()
{
    struct {
        ifinfomsg header{};
        rtattr attribute{RTA_LENGTH(sizeof(unsigned int)), IFLA_EXT_MASK};
        unsigned int mask = RTEXT_FILTER_VF; // as libnl asks
    } body;
    return dump(RTM_GETLINK, &body, sizeof body);
}

std::optional<Objects> KernelReader::readIpv4Addresses()
{
    ifaddrmsg body{};
    body.ifa_family = AF_INET;
    return dump(RTM_GETADDR, &body, sizeof body);
}

std::optional<Objects> KernelReader::readRoutes()
{
    rtmsg body{};
    body.rtm_family = AF_INET;
    return dump(RTM_GETROUTE, &body, sizeof body);
}

std::optional<Objects> KernelReader::readRoutesOf(int link)
{
    struct {
        rtmsg header{};
        rtattr attribute{RTA_LENGTH(sizeof(int)), RTA_OIF};
        int index = 0;
    } body;
    body.header.rtm_family = AF_INET;
    body.index = link;
    return connect() == 0 && strict ? dump(RTM_GETROUTE, &body, sizeof body) : std::nullopt;
}

bool KernelReader::mayHaveNexthopObjects()
{
    // struct nhmsg, all zero: any. libnl has no objects for them, so the messages are counted.
    std::array<char, 8> body{};
    int count = 0;
    auto const countMessage = [](nl_msg* /*message*/, void* argument) -> int {
        ++*static_cast<int*>(argument);
        return NL_OK;
    };
    int result = connect();
    if (result == 0) {
        nl_socket_modify_cb(socket.get(), NL_CB_VALID, NL_CB_CUSTOM, countMessage, &count);
        result = nl_send_simple(socket.get(), getNexthop, NLM_F_DUMP, body.data(), body.size());
        result = result < 0 ? result : nl_recvmsgs_default(socket.get());
    }
    bool const failed = result < 0 && result != -NLE_OPNOTSUPP; // before Linux 5.3 there are none
    if (failed) {
        disconnect();
    }
    return count > 0 || failed;
}

bool KernelReader::waitForKernel()
{
    ifinfomsg body{};
    body.ifi_index = 1; // lo: answered under the kernel's lock for all changes of its configuration
    Objects answer;
    return request(RTM_GETLINK, 0, &body, sizeof body, answer) >= 0;
}

// ---- Comparing ----

namespace {

using Key = std::uint64_t (*)(nl_object*);

std::uint64_t linkKey(nl_object* object)
{
    return static_cast<std::uint64_t>(rtnl_link_get_ifindex(reinterpret_cast<rtnl_link*>(object)));
}

std::uint64_t addressKey(nl_object* object)
{
    auto* const address = reinterpret_cast<rtnl_addr*>(object);
    return static_cast<std::uint64_t>(rtnl_addr_get_ifindex(address)) << 32 | ipv4Bytes(rtnl_addr_get_local(address));
}

std::uint64_t keyOfRoute(nl_object* object) { return routeKey(reinterpret_cast<rtnl_route*>(object)); }

std::vector<nl_object*> objectsOf(nl_cache* cache)
{
    std::vector<nl_object*> objects;
    objects.reserve(static_cast<std::size_t>(nl_cache_nitems(cache)));
    for (nl_object* object = nl_cache_get_first(cache); object != nullptr; object = nl_cache_get_next(object)) {
        objects.push_back(object);
    }
    return objects;
}

struct Fresh {
    std::uint64_t key;
    ObjectPtr object;
    bool isDuplicate; // to libnl the same as one before it
    bool isHeld = false;
};

bool isIdentical(nl_object* lhs, nl_object* rhs) { return nl_object_identical(lhs, rhs) != 0; }

// Sorted by key: libnl's own hash tables have 1,024 buckets, and would take seconds for large tables.
std::vector<Fresh> sortByKey(Objects objects, Key key)
{
    std::vector<Fresh> fresh;
    fresh.reserve(objects.size());
    for (ObjectPtr& object : objects) {
        std::uint64_t const value = key(object.get());
        fresh.push_back({value, std::move(object), false});
    }
    std::stable_sort(fresh.begin(), fresh.end(), [](Fresh const& lhs, Fresh const& rhs) { return lhs.key < rhs.key; });
    for (auto it = fresh.begin(); it != fresh.end(); ++it) {
        for (auto before = it; before != fresh.begin() && (before - 1)->key == it->key && !it->isDuplicate; --before) {
            it->isDuplicate = isIdentical((before - 1)->object.get(), it->object.get());
        }
    }
    return fresh;
}

// One of the two may be null: a fresh object takes the place of a stale one, or either stands alone.
struct Change {
    nl_object* stale;
    ObjectPtr fresh;
};

// The changes that make the held objects equal to the fresh ones; marks the fresh ones that are held. The held objects
// are read without the lock, since this thread alone changes them.
std::vector<Change> compare(std::vector<nl_object*> const& held, std::vector<Fresh>& fresh, Key key)
{
    std::vector<Change> changes;
    for (nl_object* const object : held) {
        std::uint64_t const value = key(object);
        auto const isBefore = [](Fresh const& lhs, std::uint64_t rhs) { return lhs.key < rhs; };
        auto match = std::lower_bound(fresh.begin(), fresh.end(), value, isBefore);
        auto const isOther = [&](Fresh const& candidate) {
            return candidate.isHeld || candidate.isDuplicate || !isIdentical(candidate.object.get(), object);
        };
        while (match != fresh.end() && match->key == value && isOther(*match)) {
            ++match;
        }
        if (match == fresh.end() || match->key != value) {
            changes.push_back({object, nullptr});
            continue;
        }
        match->isHeld = true;
        if (nl_object_diff64(object, match->object.get()) != 0) {
            changes.push_back({object, std::move(match->object)});
        }
    }
    return changes;
}

// In slices, between which others get the lock. This thread also drops its references to what it has put into the cache
// under the lock, since libnl's reference counts are plain integers.
Applied apply(nl_cache* cache, std::vector<Change> changes, KernelReader const& reader)
{
    Applied result;
    for (auto begin = changes.begin(); begin != changes.end() && !reader.isStopped();) {
        auto const end = begin + std::min<std::ptrdiff_t>(objectsAtOnce, changes.end() - begin);
        letWaitersGo();
        MyLock const lock("CacheSync");
        for (; begin != end; ++begin) {
            if (begin->stale != nullptr) {
                nl_cache_remove(begin->stale);
                result.removed = result.removed || begin->fresh == nullptr;
            }
            if (begin->fresh != nullptr) {
                result.complete = nl_cache_move(cache, begin->fresh.get()) == 0 && result.complete;
                begin->fresh.reset();
            }
        }
    }
    result.complete = result.complete && !reader.isStopped();
    return result;
}

Applied makeEqual(nl_cache* cache, std::vector<Fresh> fresh, KernelReader const& reader, Key key)
{
    std::vector<Change> changes = compare(objectsOf(cache), fresh, key);
    for (Fresh& candidate : fresh) {
        if (!candidate.isHeld && !candidate.isDuplicate) {
            changes.push_back({nullptr, std::move(candidate.object)});
        }
    }
    return apply(cache, std::move(changes), reader);
}

} // namespace

std::uint32_t ipv4Bytes(nl_addr* address)
{
    std::uint32_t bytes = 0;
    if (address != nullptr) {
        std::memcpy(&bytes, nl_addr_get_binary_addr(address), std::min<std::size_t>(nl_addr_get_len(address), 4));
    }
    return bytes;
}

std::uint64_t routeKey(rtnl_route* route)
{
    constexpr std::uint64_t prime = 1099511628211; // of the FNV-1a hash
    std::uint64_t key = ipv4Bytes(rtnl_route_get_dst(route));
    for (std::uint64_t const number :
         {std::uint64_t{nl_addr_get_prefixlen(rtnl_route_get_dst(route))}, std::uint64_t{rtnl_route_get_table(route)},
          std::uint64_t{rtnl_route_get_tos(route)}, std::uint64_t{rtnl_route_get_priority(route)}}) {
        key = (key ^ number) * prime;
    }
    return key;
}

Applied makeLinksEqual(nl_cache* cache, Objects fresh, KernelReader const& reader)
{
    return makeEqual(cache, sortByKey(std::move(fresh), linkKey), reader, linkKey);
}

Applied makeAddressesEqual(nl_cache* cache, Objects fresh, KernelReader const& reader)
{
    std::vector<std::pair<std::uint64_t, nl_object*>> held;
    for (nl_object* const object : objectsOf(cache)) {
        held.emplace_back(addressKey(object), object);
    }
    std::sort(held.begin(), held.end());
    std::vector<Change> changes; // each one takes its place at the end of the cache
    for (ObjectPtr& object : fresh) {
        std::uint64_t const key = addressKey(object.get());
        auto match = std::lower_bound(held.begin(), held.end(), std::make_pair(key, static_cast<nl_object*>(nullptr)));
        auto const isOther = [&] { return match->second == nullptr || !isIdentical(match->second, object.get()); };
        while (match != held.end() && match->first == key && isOther()) {
            ++match;
        }
        bool const isHeld = match != held.end() && match->first == key;
        changes.push_back({isHeld ? std::exchange(match->second, nullptr) : nullptr, std::move(object)});
    }
    for (auto const& [key, object] : held) {
        changes.push_back({object, nullptr});
    }
    return apply(cache, std::move(changes), reader);
}

std::optional<std::vector<std::uint64_t>> makeRoutesEqual(nl_cache* cache, Objects fresh, KernelReader const& reader)
{
    std::vector<Fresh> sorted = sortByKey(std::move(fresh), keyOfRoute);
    std::vector<std::uint64_t> duplicates;
    for (Fresh const& route : sorted) {
        if (route.isDuplicate) {
            duplicates.push_back(route.key);
        }
    }
    if (!makeEqual(cache, std::move(sorted), reader, keyOfRoute).complete) {
        return std::nullopt;
    }
    return duplicates;
}

Applied removeStaleRoutes(nl_cache* cache, std::vector<nl_object*> const& routes, Objects fresh,
                          KernelReader const& reader)
{
    std::vector<Fresh> sorted = sortByKey(std::move(fresh), keyOfRoute);
    return apply(cache, compare(routes, sorted, keyOfRoute), reader);
}

bool holdsAddressTwice(nl_cache* cache)
{
    std::vector<nl_object*> addresses = objectsOf(cache);
    auto const isBefore = [](nl_object* lhs, nl_object* rhs) { return addressKey(lhs) < addressKey(rhs); };
    std::sort(addresses.begin(), addresses.end(), isBefore);
    return std::adjacent_find(addresses.begin(), addresses.end(), isIdentical) != addresses.end();
}

} // namespace netlink_route
