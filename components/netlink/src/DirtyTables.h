// Which tables may differ from the kernel, and when they may be read again. Makes no system call.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
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
        if (count == numbers.size()) {
            overflown = true;
            return;
        }
        numbers[count++] = number;
    }
    bool contains(Number number) const
    {
        for (Number const& other : *this) {
            if (other == number) {
                return true;
            }
        }
        return false;
    }
    bool empty() const { return count == 0; }
    bool isOverflown() const { return overflown; }
    Number const* begin() const { return numbers.data(); }
    Number const* end() const { return numbers.data() + count; }

private:
    std::array<Number, 16> numbers{};
    std::size_t count = 0;
    bool overflown = false;
};

// Notifications keep the caches equal to the kernel's tables, but for these causes of difference:
//   - An overrun: the event socket was full and the kernel dropped notifications, or libnl failed to apply one. All
//     tables are dirty.
//   - What arrived before the event socket was filtered, which is thrown away. All tables are dirty.
//   - Routes that the kernel drops without a notification: when a link of theirs goes down or away, when their
//     preferred source address goes away, and when their nexthop object changes, goes away, or its link loses the
//     carrier. The routes of these links and addresses are dirty; after a change of a nexthop object, all routes.
//   - Two routes that differ in their next hops alone: libnl holds one of them, and none when either is removed. All
//     routes are dirty.
//   - An address that was notified again, of a link with several: libnl moves it to the end of its cache. The addresses
//     are dirty.
//   - A queueing discipline, which the kernel does not notify with its link. The link is asked for; if that fails, it is
//     as after an overrun.
//
// Used by the event thread alone, and before it by the constructor. The note functions are called from libnl's callback,
// and no exception may pass libnl's frames, so they allocate nothing.
class DirtyTables {
public:
    using Clock = std::chrono::steady_clock;

    // What libnl has applied, with its action (NL_ACT_*).
    void noteLink(rtnl_link* link, int action);
    void noteAddress(rtnl_addr* address, int action);
    void noteRoute(rtnl_route* route, int action);

    void noteOverrun();
    void noteAll(); // all tables are dirty

    // A reading of the tables, or of the routes of some links, ended and cost that much processor time. Each of the two
    // kinds has a budget of its own: it pauses nine times as long as it took.
    void noteTablesRead(std::chrono::nanoseconds cost, Clock::time_point end, bool complete);
    void noteRoutesOfLinksRead(std::chrono::nanoseconds cost, Clock::time_point end, bool complete);

    // Whether the kernel may hold several routes with the key of this one.
    bool isOneOfSeveral(rtnl_route* route) const;

    // What may be read now.
    bool areTablesDue(Clock::time_point now) const { return tables() && now >= nextTables; }
    bool areRoutesOfLinksDue(Clock::time_point now) const { return routesOfLinks() && now >= nextRoutesOfLinks; }

    // The milliseconds until something is due, -1: nothing is dirty.
    int untilDue(Clock::time_point now) const;

    bool overrun = false; // the kernel drops notifications until the event socket has been read to its end
    bool links = false;
    bool addresses = false;
    bool routes = false;
    NumberSet<int> routesOverLinks;               // the routes with a hop on one of these links
    NumberSet<std::uint32_t> routesFromAddresses; // the routes with one of these as preferred source
    bool nexthopObjects = true;                   // the kernel has some, or may have
    std::vector<std::uint64_t> severalRoutes;     // keys, sorted, of which the kernel holds several routes
    bool severalRoutesKnown = false;              // whether all routes were read once: libnl's cache does not show it
    bool addressesAfterwards = false;             // the addresses are dirty again when the reading in progress is done
    bool routesAfterwards = false;                // the same of all routes

private:
    bool tables() const { return links || addresses || routes; }
    bool routesOfLinks() const { return !routesOverLinks.empty() || !routesFromAddresses.empty(); }

    Clock::time_point nextTables{}; // no reading before
    Clock::time_point nextRoutesOfLinks{};
};

} // namespace netlink_route
