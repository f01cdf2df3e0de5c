#include "CacheSync.h"

#include "LockQueue.h"
#include "MyLock.h"
#include "RouteKey.h"

#include <algorithm>
#include <netlink/object.h>
#include <netlink/route/link/vlan.h>
#include <tuple>
#include <utility>

namespace netlink_route {

namespace {

using Key = std::uint64_t (*)(nl_object*);

// With what libnl leaves out when it compares two links: a link whose ARP type or VLAN id changed is another one.
std::uint64_t linkKey(nl_object* object)
{
    auto* const link = reinterpret_cast<rtnl_link*>(object);
    auto const index = static_cast<std::uint64_t>(rtnl_link_get_ifindex(link));
    auto const vlanId = static_cast<std::uint64_t>(rtnl_link_is_vlan(link) != 0 ? rtnl_link_vlan_get_id(link) : 0);
    return index << 32 | vlanId << 16 | rtnl_link_get_arptype(link);
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
    std::size_t place; // in the kernel's order
    ObjectPtr object;  // null when one before it is the same to libnl, or the cache holds it
};

bool isIdentical(nl_object* lhs, nl_object* rhs) { return nl_object_identical(lhs, rhs) != 0; }

// Sorted by key: libnl's own hash tables have 1,024 buckets, and would take seconds for large tables.
std::vector<Fresh> sortByKey(Objects objects, Key key)
{
    std::vector<Fresh> fresh;
    fresh.reserve(objects.size());
    for (ObjectPtr& object : objects) {
        std::uint64_t const value = key(object.get());
        fresh.push_back({value, fresh.size(), std::move(object)});
    }
    std::sort(fresh.begin(), fresh.end(), [](Fresh const& lhs, Fresh const& rhs) {
        return std::tie(lhs.key, lhs.place) < std::tie(rhs.key, rhs.place);
    });
    auto first = fresh.begin(); // of those with the same key
    for (auto it = fresh.begin(); it != fresh.end(); ++it) {
        first = first->key == it->key ? first : it;
        auto const isSame = [&](Fresh const& before) {
            return before.object != nullptr && isIdentical(before.object.get(), it->object.get());
        };
        if (std::any_of(first, it, isSame)) {
            it->object.reset();
        }
    }
    return fresh;
}

// One of the two may be null: a fresh object takes the place of a stale one, or either stands alone.
struct Change {
    nl_object* stale;
    ObjectPtr fresh;
};

// The changes that make the held objects equal to the fresh ones; takes those out of the fresh ones that are held. The
// held objects are read without the lock, since this thread alone changes them.
std::vector<Change> compare(std::vector<nl_object*> const& held, std::vector<Fresh>& fresh, Key key)
{
    std::vector<Change> changes;
    for (nl_object* const object : held) {
        std::uint64_t const value = key(object);
        auto const isBefore = [](Fresh const& lhs, std::uint64_t rhs) { return lhs.key < rhs; };
        auto match = std::lower_bound(fresh.begin(), fresh.end(), value, isBefore);
        auto const isOther = [&](Fresh const& candidate) {
            return candidate.object == nullptr || !isIdentical(candidate.object.get(), object);
        };
        while (match != fresh.end() && match->key == value && isOther(*match)) {
            ++match;
        }
        if (match == fresh.end() || match->key != value) {
            changes.push_back({object, nullptr});
            continue;
        }
        ObjectPtr current = std::move(match->object);
        if (nl_object_diff64(object, current.get()) != 0) {
            changes.push_back({object, std::move(current)});
        }
    }
    return changes;
}

// Between two slices others get the lock. The references to what is in the cache now are dropped under the lock, too,
// since libnl's reference counts are plain integers.
Applied apply(nl_cache* cache, std::vector<Change> changes, Slices const& slices)
{
    Applied result;
    for (auto begin = changes.begin(); begin != changes.end() && !slices.stop;) {
        auto const end = begin + std::min<std::ptrdiff_t>(objectsAtOnce, changes.end() - begin);
        std::optional<MyLock> lock;
        if (slices.lock) {
            letWaitersGo();
            lock.emplace("CacheSync");
        }
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
    result.complete = result.complete && !slices.stop;
    return result;
}

Applied makeEqual(nl_cache* cache, std::vector<Fresh> fresh, Slices const& slices, Key key)
{
    std::vector<Change> changes = compare(objectsOf(cache), fresh, key);
    std::sort(fresh.begin(), fresh.end(), [](Fresh const& lhs, Fresh const& rhs) { return lhs.place < rhs.place; });
    for (Fresh& candidate : fresh) { // behind the others, in the kernel's order
        if (candidate.object != nullptr) {
            changes.push_back({nullptr, std::move(candidate.object)});
        }
    }
    return apply(cache, std::move(changes), slices);
}

} // namespace

Applied makeLinksEqual(nl_cache* cache, Objects fresh, Slices const& slices)
{
    return makeEqual(cache, sortByKey(std::move(fresh), linkKey), slices, linkKey);
}

Applied makeAddressesEqual(nl_cache* cache, Objects fresh, Slices const& slices)
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
    return apply(cache, std::move(changes), slices);
}

std::optional<std::vector<std::uint64_t>> makeRoutesEqual(nl_cache* cache, Objects fresh, Slices const& slices)
{
    std::vector<Fresh> sorted = sortByKey(std::move(fresh), keyOfRoute);
    std::vector<std::uint64_t> duplicates;
    for (Fresh const& route : sorted) {
        if (route.object == nullptr) {
            duplicates.push_back(route.key);
        }
    }
    if (!makeEqual(cache, std::move(sorted), slices, keyOfRoute).complete) {
        return std::nullopt;
    }
    return duplicates;
}

Applied removeStaleRoutes(nl_cache* cache, std::vector<nl_object*> const& routes, Objects fresh, Slices const& slices)
{
    std::vector<Fresh> sorted = sortByKey(std::move(fresh), keyOfRoute);
    return apply(cache, compare(routes, sorted, keyOfRoute), slices);
}

bool holdsAddressTwice(nl_cache* cache)
{
    std::vector<nl_object*> addresses = objectsOf(cache);
    auto const isBefore = [](nl_object* lhs, nl_object* rhs) { return addressKey(lhs) < addressKey(rhs); };
    std::sort(addresses.begin(), addresses.end(), isBefore);
    return std::adjacent_find(addresses.begin(), addresses.end(), isIdentical) != addresses.end();
}

} // namespace netlink_route
