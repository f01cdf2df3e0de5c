// What in the caches may differ from the kernel, and when it may be read again.
#pragma once

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

struct rtnl_addr;
struct rtnl_link;
struct rtnl_route;

namespace netlink_route {

// A few different numbers. More than it can hold make it overflow.
template <typename Number>
class NumberSet {
public:
    void insert(Number number)
    {
        if (contains(number)) {
            return;
        }
        overflown = count == numbers.size();
        if (!overflown) {
            numbers[count++] = number;
        }
    }
    bool contains(Number number) const { return std::find(begin(), end(), number) != end(); }
    bool empty() const { return count == 0; }
    bool isOverflown() const { return overflown; }
    Number const* begin() const { return numbers.data(); }
    Number const* end() const { return numbers.data() + count; }

private:
    std::array<Number, 16> numbers{};
    std::size_t count = 0;
    bool overflown = false;
};

// Notes what makes a cache, or a part of it, differ from the kernel: it is dirty then. A reading takes what it mends, and
// notes it again if it fails; so what is noted while it is in progress stays for the next one.
//
// Used by the event thread alone, and before it by the constructor. Makes no system call. The functions that note a
// change are called below frames of libnl, which no exception may pass, so they allocate nothing.
class DirtyTables {
public:
    using Clock = std::chrono::steady_clock;

    // ---- What happened ----

    // A change that libnl has applied, with its action (NL_ACT_*).
    void noteLink(rtnl_link* link, int action);
    void noteAddress(rtnl_addr* address, int action);
    void noteRoute(rtnl_route* route, int action);

    // A table may differ, for another reason.
    void noteAddresses() { addresses = true; }
    void noteRoutes() { routes = true; }

    // Notifications were lost: each table may differ.
    void noteLoss();

    // ---- What a reading of all routes has shown ----

    // The keys, sorted, of which the kernel has several routes, or std::nullopt when a reading failed.
    void setSharedKeys(std::optional<std::vector<std::uint64_t>> keys) { sharedKeys = std::move(keys); }
    // Whether the kernel may have several routes with that key.
    bool mayShare(std::uint64_t key) const;

    void setNexthopObjects(bool may) { nexthopObjects = may; }

    // ---- What is to be read ----

    // Each true once after it was noted.
    bool takeLinks() { return std::exchange(links, false); }
    bool takeAddresses() { return std::exchange(addresses, false); }
    bool takeRoutes() { return std::exchange(routes, false); }

    // The links and the addresses whose routes may differ, and what is known of these routes.
    struct Causes {
        NumberSet<int> links;               // routes with a hop on one of these
        NumberSet<std::uint32_t> addresses; // routes with one of these as preferred source
        NumberSet<std::uint64_t> renewed;   // but for the routes with these keys, which were notified after that
    };
    Causes takeCauses() { return std::exchange(causes, {}); }
    void putBack(Causes const& taken) { causes = taken; }

    // Whether a table, or the routes of some links, may be read now.
    bool areTablesDue(Clock::time_point now) const { return isAnyTable() && now >= nextTables; }
    bool areCausesDue(Clock::time_point now) const { return isAnyCause() && now >= nextCauses; }

    // The milliseconds until something is due, -1: nothing is dirty.
    int untilDue(Clock::time_point now) const;

    // Whether notifications were lost, and not all tables have been read since.
    bool hasLoss() const { return links; }

    // A reading of tables, or of the routes of some links, ended and cost that much processor time. The next one of the
    // same kind waits nine times as long, if that was a millisecond or more.
    void noteTablesRead(std::chrono::nanoseconds cost, Clock::time_point end, bool complete);
    void noteCausesRead(std::chrono::nanoseconds cost, Clock::time_point end, bool complete);

private:
    bool isAnyTable() const { return links || addresses || routes; }
    bool isAnyCause() const { return !causes.links.empty() || !causes.addresses.empty(); }

    bool links = false;
    bool addresses = false;
    bool routes = false;
    Causes causes;
    bool nexthopObjects = true; // the kernel has some, or may have
    std::optional<std::vector<std::uint64_t>> sharedKeys;
    Clock::time_point nextTables{}; // no reading before
    Clock::time_point nextCauses{};
};

} // namespace netlink_route
