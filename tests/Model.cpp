// The model: walks through the orders in which things can happen between kernel and mirror, and looks after each one
// whether the mirror has kept its promises. A test on a real kernel shows only the order that the machine happened to
// choose. So here the mirror is the real one, with libnl's real caches, and the kernel is not: a few links, addresses
// and routes, which notify, drop silently, overrun and answer as Linux does. It takes the place of the sockets, libnl's
// cache manager and the clock when the program is linked: the end of this file defines their functions.
//
// A walk is a list of steps. All walks of one step are taken, then all of two, and so on: the first that breaks a
// promise is one of the shortest. Then come long walks at random; one that fails is shortened by leaving steps out.
// Each walk starts anew, and ends by letting the event thread finish.
#include "CacheMirror.h"
#include "LockQueue.h"
#include "RouteKey.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <ctime>
#include <deque>
#include <gtest/gtest.h>
#include <linux/if.h>
#include <linux/rtnetlink.h>
#include <netlink/errno.h>
#include <netlink/msg.h>
#include <random>
#include <sched.h>
#include <sstream>
#include <tuple>
#include <utility>

namespace netlink_route {
namespace {

enum Table { links, addresses, routes };

using Number = std::uint32_t;

struct Object {
    Table table;
    Number number; // of a link: its index; of an address: its last byte; of a route: its metric
    Number link;   // 0, the one that has the address, or over which the route leads
    Number detail; // of a link: whether it is up; of an address: its lifetime; of a route: its source address, or 0
    bool isDeleted = false; // the message that it is gone

    auto all() const { return std::tie(table, number, link, detail); }
    bool operator==(Object const& other) const { return all() == other.all(); }
    bool operator<(Object const& other) const { return all() < other.all(); }
};
using List = std::vector<Object>;

Object const viaLink1{routes, 1, 1, 0};
Object const viaLink2{routes, 1, 2, 0}; // to libnl the same
Object const withSource{routes, 2, 2, 1};

enum How { nothing, add, remove, replace, overrun }; // the last: of the event socket

// Linux, as far as the mirror sees it, and its end of the event socket.
class Kernel {
public:
    std::array<List, 3> tables{List{{links, 1, 0, 1}, {links, 2, 0, 1}},
                               List{{addresses, 1, 1, 1}, {addresses, 2, 1, 1}}, List{viaLink1, withSource}};
    std::deque<Object> queue; // what the event socket holds
    bool hasOverrun = false;  // and has not reported it yet

    // False: refused. What the change before has led to is done by then: both need the same lock of the kernel.
    bool make(How how, Object object)
    {
        finish();
        if (how == overrun) {
            isFull = true;
            return !std::exchange(hasOverrun, true);
        }
        List& all = tables[object.table];
        auto const old = std::find_if(all.begin(), all.end(), [&](Object const& other) {
            bool const mayDiffer = object.table != routes || how == replace;
            return other.number == object.number && (mayDiffer || other.link == object.link);
        });
        bool const exists = old != all.end();
        if (how == remove) {
            return exists && erase(old);
        }
        object.detail = object.table == addresses ? ++lifetime : object.detail;
        if (exists != (how == replace) || !canBe(object) || (exists && *old == object)) {
            return false;
        }
        // Addresses come behind the others, the rest by number.
        auto const isLess = [](auto& lhs, auto& rhs) { return lhs.table != addresses && lhs.number < rhs.number; };
        auto const behind = std::upper_bound(all.begin(), all.end(), object, isLess);
        *(exists ? old : all.insert(behind, object)) = object;
        return tell(object);
    }

    // Always true. Drops the routes that cannot be any more, unnotified, a moment after the change that led to it.
    bool finish()
    {
        List& all = tables[routes];
        auto const isDoomed = [&](Object const& route) { return !canBe(route); };
        all.erase(std::remove_if(all.begin(), all.end(), isDoomed), all.end());
        return true;
    }

    bool isQuiet() const { return queue.empty() && !hasOverrun; }

private:
    // A route needs its link up, its source, and an address of link 1 if it leads there; an address needs its link.
    bool canBe(Object const& object) const
    {
        auto const has = [&](Table table, Number number, Number detail) {
            return std::any_of(tables[table].begin(), tables[table].end(),
                               [&](Object const& other) { return other.number == number && other.detail >= detail; });
        };
        bool const isRoute = object.table == routes;
        return (object.table == links || has(links, object.link, isRoute ? 1 : 0)) &&
               (!isRoute || object.detail == 0 || has(addresses, object.detail, 0)) &&
               (!isRoute || object.link != 1 || !tables[addresses].empty());
    }

    // Link 1 goes down first, and takes the addresses along: all are its own.
    bool erase(List::iterator place)
    {
        Object object = *place;
        if (object.table == links) {
            object.detail = 0;
            tell(object);
            while (!tables[addresses].empty()) {
                erase(tables[addresses].begin());
            }
        }
        tables[object.table].erase(place);
        object.isDeleted = true;
        return tell(object);
    }

    // A socket that has overrun takes no more until it has reported that and has been emptied.
    bool tell(Object const& object)
    {
        isFull = isFull && !isQuiet();
        queue.resize(queue.size() + (isFull ? 0 : 1), object);
        return true;
    }

    Number lifetime = 1;
    bool isFull = false;
};

constexpr Number network = 0x0A000000; // 10.0.0.0

ObjectPtr parse(Object const& message)
{
    auto const& [table, number, link, detail, isDeleted] = message;
    int const type = std::array{RTM_NEWLINK, RTM_NEWADDR, RTM_NEWROUTE}[table] + (isDeleted ? 1 : 0);
    std::unique_ptr<nl_msg, Release<nlmsg_free>> const owner(nlmsg_alloc_simple(type, 0));
    nl_msg* const bytes = owner.get();
    nlmsg_set_proto(bytes, NETLINK_ROUTE);
    auto const begin = [&](auto header) { nlmsg_append(bytes, &header, sizeof header, NLMSG_ALIGNTO); };
    if (table == links) {
        begin(ifinfomsg{AF_UNSPEC, 0, 0, static_cast<int>(number), detail != 0 ? IFF_UP | IFF_RUNNING : 0U, 0});
        nla_put_string(bytes, IFLA_IFNAME, "link");
    } else if (table == addresses) {
        begin(ifaddrmsg{AF_INET, 24, 0, RT_SCOPE_UNIVERSE, link});
        ifa_cacheinfo const lifetimes{detail, detail, 0, 0};
        nla_put(bytes, IFA_CACHEINFO, sizeof lifetimes, &lifetimes);
        nla_put_u32(bytes, IFA_LOCAL, htonl(network + number));
    } else {
        begin(rtmsg{AF_INET, 24, 0, 0, RT_TABLE_MAIN, RTPROT_STATIC, RT_SCOPE_UNIVERSE, RTN_UNICAST, 0});
        nla_put_u32(bytes, RTA_DST, htonl(network));
        nla_put_u32(bytes, RTA_PRIORITY, number);
        nla_put_u32(bytes, RTA_OIF, link);
        nla_put_u32(bytes, RTA_PREFSRC, htonl(network + detail));
    }
    ObjectPtr parsed;
    auto const keep = [](nl_object* object, void* result) {
        nl_object_get(object);
        static_cast<ObjectPtr*>(result)->reset(object);
    };
    nl_msg_parse(bytes, keep, &parsed);
    return parsed;
}

Object describe(Table table, nl_object* object)
{
    auto* const link = reinterpret_cast<rtnl_link*>(object);
    auto* const address = reinterpret_cast<rtnl_addr*>(object);
    auto* const route = reinterpret_cast<rtnl_route*>(object);
    auto const lastByte = [](nl_addr* of) { return ntohl(ipv4Bytes(of)) - network; };
    auto const index = [](int number) { return static_cast<Number>(number); };
    if (table == links) {
        return {table, index(rtnl_link_get_ifindex(link)), 0, rtnl_link_get_flags(link) & IFF_UP};
    }
    if (table == addresses) {
        return {table, lastByte(rtnl_addr_get_local(address)), index(rtnl_addr_get_ifindex(address)),
                rtnl_addr_get_valid_lifetime(address)};
    }
    return {table, rtnl_route_get_priority(route), index(rtnl_route_nh_get_ifindex(rtnl_route_nexthop_n(route, 0))),
            lastByte(rtnl_route_get_pref_src(route))};
}

std::string toString(List const& list)
{
    static constexpr std::array names{" link", " address", " route"};
    std::ostringstream text;
    for (auto const& [table, number, link, detail, isDeleted] : list) {
        text << names[table] << " (" << number << ' ' << link << ' ' << detail << ')';
    }
    return text.str();
}

enum Verb { now, turn, start, endPass, failReading, failWait, slow, fill, before, between, after };

// From `start` on a plan for what comes next.
struct Step {
    Verb verb;
    How how = nothing;
    Object object{};
};
using Steps = std::vector<Step>;

std::string toString(Steps const& steps)
{
    // clang-format off
    static constexpr std::array verbs{
        "now: ", "the event thread takes a turn", "the next turn is the start of another mirror",
        "the next pass will end after one message", "the next reading will fail", "the next wait will fail",
        "the next reading will be slow", "at the start, between links and addresses: ", "before the next answer: ",
        "between two pieces of the next answer: ", "after the next answer: "};
    // clang-format on
    static constexpr std::array hows{"", "add", "remove", "change to", "overrun of the event socket"};
    std::string text;
    for (auto const& [verb, how, object] : steps) {
        text += std::string("\n  ") + verbs[verb] + hows[how] + toString(List(object.number != 0 ? 1 : 0, object));
    }
    return text;
}

nl_cache* allocate(char const* name) { return nl_cache_alloc(nl_cache_ops_lookup(name)); }

class Walk {
public:
    explicit Walk(Steps const& steps)
    {
        begin();
        for (Step const& step : steps) {
            plans.push_back(step);
            takePlan(now);
            if (takePlan(turn)) {
                isUseful = takeTurn() && plans.empty() && isUseful;
            }
        }
        for (int turns = 0; turns < 100 && takeTurn(); ++turns) { // the event thread finishes
        }
        isUseful = isUseful && plans.empty();
        broken = mirror->untilDue() < 0 ? broken : "Something stays dirty for ever.";
        kernel.finish();
        expectTrue(true, "Nothing is dirty, and a cache differs from the kernel.");
    }

    static inline Walk* current = nullptr; // for the functions that are linked in the place of others
    static inline std::chrono::nanoseconds time = std::chrono::seconds(1); // long ago, so that nothing waits for it

    bool isUseful = true; // each step was possible, and had an effect; else a shorter walk does the same
    std::string broken;   // the first promise that was, or empty
    Kernel kernel;
    bool isHidden = false; // the event socket

    int applyQueue()
    {
        while (!isHidden && !kernel.isQuiet()) {
            if (std::exchange(kernel.hasOverrun, false)) {
                return -NLE_NOMEM;
            }
            Object const message = kernel.queue.front();
            kernel.queue.pop_front();
            auto const tell = [](nl_cache* cache, nl_object* object, int action, void* own) {
                static_cast<CacheMirror*>(own)->noteChange(cache, object, action);
            };
            nl_cache_include(caches[message.table], parse(message).get(), tell, &*mirror);
            if (!kernel.queue.empty() && takePlan(endPass)) {
                endRunningPass(); // as a query does that waits
            }
        }
        return 0;
    }

    // Routes come in two pieces: the kernel continues behind as many as it has looked at.
    std::optional<Objects> read(Table table, int link = 0)
    {
        lookAtWaits();
        takePlan(before);
        time += std::chrono::milliseconds(takePlan(slow) ? 2 : 0);
        Objects answer;
        List const& all = kernel.tables[table];
        for (std::size_t i = 0; i < all.size(); ++i) {
            if (table == routes && answer.size() == 1) {
                takePlan(between);
            }
            if (i < all.size() && (link == 0 || all[i].link == static_cast<Number>(link))) {
                answer.push_back(parse(all[i]));
            }
        }
        takePlan(after);
        return takePlan(failReading) ? std::nullopt : std::make_optional(std::move(answer));
    }

    bool waitForKernel()
    {
        lookAtWaits();
        return !takePlan(failWait) && kernel.finish();
    }

private:
    // libnl fills the link cache, then the address cache; the routes are read.
    void begin()
    {
        current = this;
        isStarting = true;
        kernel.finish();
        kernel.queue.clear();
        kernel.hasOverrun = false;
        mirror.emplace();
        for (Table const table : {routes, links, addresses}) {
            nl_cache_clear(caches[table]);
            for (Object const& object : table != routes ? kernel.tables[table] : List{}) {
                nl_cache_add(caches[table], parse(object).get());
            }
            if (table == links) {
                takePlan(fill);
            }
        }
        mirror->begin({caches[links], caches[routes], caches[addresses]});
        isStarting = false;
    }

    // As CacheManager::cacheThread does. With nothing to do it would sleep.
    bool takeTurn()
    {
        if (takePlan(start)) {
            begin();
            return true;
        }
        bool const hasArrived = !kernel.isQuiet();
        int const milliseconds = hasArrived ? 0 : mirror->untilDue();
        if (milliseconds < 0) {
            return false;
        }
        time += std::chrono::milliseconds(milliseconds);
        mirror->takeTurn(hasArrived, [](CacheMirror& own) { own.apply(); });
        lookAtWaits();
        return true;
    }

    // Whether that was planned. If it is a change, it happens.
    bool takePlan(Verb verb)
    {
        auto const plan = std::find_if(plans.begin(), plans.end(), [&](Step const& step) { return step.verb == verb; });
        if (plan == plans.end()) {
            return false;
        }
        auto const [own, how, object] = *plan;
        plans.erase(plan);
        if (how != nothing) {
            isUseful = kernel.make(how, object) && isUseful;
            lookAtWaits();
        }
        return true;
    }

    // Of routes that are the same to libnl it holds the first. While something is dirty, order and routes may differ.
    void expectTrue(bool isClean, char const* promise)
    {
        for (Table const table : {links, addresses, routes}) {
            List fresh = kernel.tables[table];
            List held;
            for (auto* each = nl_cache_get_first(caches[table]); each != nullptr; each = nl_cache_get_next(each)) {
                held.push_back(describe(table, each));
            }
            auto const isSame = [](Object const& lhs, Object const& rhs) { return lhs.number == rhs.number; };
            fresh.erase(std::unique(fresh.begin(), fresh.end(), isSame), fresh.end());
            if (table != addresses || !isClean) {
                std::sort(fresh.begin(), fresh.end());
                std::sort(held.begin(), held.end());
            }
            if (held != fresh && broken.empty() && (isClean || table != routes)) {
                broken = promise + (" Kernel:" + toString(fresh)) + ", cache:" + toString(held);
            }
        }
    }

    // Whoever waits for an own change goes on as soon as nothing is queued and no turn is in progress.
    void lookAtWaits()
    {
        if (isStarting) { // in the constructor nobody waits
            return;
        }
        auto const before = time;
        mirror->waitForEvents();
        if (std::exchange(time, before) == before) { // there was nothing to wait for
            expectTrue(mirror->untilDue() < 0, "A thread waited for its own change, and the caches do not have it.");
        }
    }

    static inline std::array const caches{allocate("route/link"), allocate("route/addr"), allocate("route/route")};
    std::optional<CacheMirror> mirror;
    Steps plans;
    bool isStarting = false;
};

Steps const allSteps = [] {
    // clang-format off
    Steps steps{
        {turn}, {start}, {endPass}, {failReading}, {failWait}, {slow}, {now, overrun},
        {now, replace, {links, 1, 0, 0}}, {now, replace, {links, 1, 0, 1}}, {now, remove, {links, 1, 0, 0}},
        {now, add, {links, 1, 0, 1}}, {now, replace, {links, 2, 0, 0}}, {now, replace, {links, 2, 0, 1}},
        {now, add, {addresses, 1, 1, 0}}, {now, remove, {addresses, 1, 1, 0}}, {now, replace, {addresses, 1, 1, 0}},
        {now, add, {addresses, 2, 1, 0}}, {now, remove, {addresses, 2, 1, 0}},
        {now, add, viaLink1}, {now, remove, viaLink1}, {now, replace, viaLink1}, {now, add, viaLink2},
        {now, remove, viaLink2}, {now, replace, viaLink2}, {now, add, withSource}, {now, remove, withSource}};
    // clang-format on
    for (Step const& change : Steps(steps.begin() + 6, steps.end())) {
        for (Verb const verb : {fill, before, between, after}) {
            steps.push_back({verb, change.how, change.object});
        }
    }
    return steps;
}();

// Of the processor: on a busy machine a walk takes no longer.
double seconds() { return static_cast<double>(std::clock()) / CLOCKS_PER_SEC; }

TEST(Model, EveryShortWalkKeepsThePromises)
{
    double const limit = seconds() + 20;
    std::vector<Steps> walks{{}};
    std::size_t done = 0;
    for (; done < walks.size() && seconds() < limit; ++done) {
        Verb const last = walks[done].empty() ? now : walks[done].back().verb;
        for (Step const& step : allSteps) {
            // Plans come right before the turn, in the order of their verbs: another order would do the same. And what
            // a mirror did before another one starts is of no use.
            if (step.verb == start ? last != now : last > turn && step.verb != turn && step.verb < last) {
                continue;
            }
            Steps longer = walks[done];
            longer.push_back(step);
            Walk const walk(longer);
            if (walk.isUseful) {
                ASSERT_EQ("", walk.broken) << toString(longer);
                walks.push_back(std::move(longer));
            }
        }
    }
    std::cout << walks.size() << " walks: all of " << walks[done].size() << " steps, some of more\n";
    EXPECT_GE(walks[done].size(), 3);
}

TEST(Model, LongWalksKeepThePromises)
{
    int const wanted = testing::GTEST_FLAG(random_seed);
    unsigned int const seed = wanted != 0 ? static_cast<unsigned int>(wanted) : std::random_device()() % 99999 + 1;
    std::mt19937 random(seed);
    double const limit = seconds() + 4;
    while (seconds() < limit) {
        Steps walk;
        while (walk.size() < 60) { // a third of them among the six without a change; else there are few turns
            walk.push_back(allSteps[random() % (random() % 3 == 0 ? 6 : allSteps.size())]);
        }
        for (std::size_t i = Walk(walk).broken.empty() ? 0 : walk.size();
             i-- > 0;) { // without the steps that are not needed
            Steps shorter = walk;
            shorter.erase(shorter.begin() + static_cast<std::ptrdiff_t>(i));
            walk = Walk(shorter).broken.empty() ? walk : shorter;
        }
        ASSERT_EQ("", Walk(walk).broken) << " --gtest_random_seed=" << seed << toString(walk);
    }
}

} // namespace

// ---- What the program defines in the place of the library, libnl and the C library ----

int EventSocket::adopt(int /*libnlDescriptor*/) { return 0; }
bool EventSocket::isEmpty() const { return Walk::current->kernel.isQuiet(); }
void EventSocket::hide() { Walk::current->isHidden = true; }
void EventSocket::show() { Walk::current->isHidden = false; }
void EventSocket::stop() {}
void EventSocket::abandon() {}
bool EventSocket::askForLink(int /*index*/) const { return true; }

int NoticeSocket::open() { return 0; }
void NoticeSocket::abandon() {}
NoticeSocket::Notices NoticeSocket::take() { return {}; }

int KernelReader::open() { return 0; }
void KernelReader::abandon() {}
std::optional<Objects> KernelReader::readLinks() { return Walk::current->read(links); }
std::optional<Objects> KernelReader::readIpv4Addresses() { return Walk::current->read(addresses); }
std::optional<Objects> KernelReader::readRoutes() { return Walk::current->read(routes); }
std::optional<Objects> KernelReader::readRoutesOf(int link) { return Walk::current->read(routes, link); }
bool KernelReader::mayHaveNexthopObjects() { return false; }
bool KernelReader::waitForKernel() { return Walk::current->waitForKernel(); }

} // namespace netlink_route

pthread_mutex_t mutex_man = PTHREAD_MUTEX_INITIALIZER;

int nl_cache_mngr_data_ready(nl_cache_mngr* /*manager*/) { return netlink_route::Walk::current->applyQueue(); }

// Time passes as the walk says. Whoever waits for an own change learns that a second has gone by, and gives up.
int clock_gettime(clockid_t /*clock*/, timespec* result) noexcept
{
    auto const time = netlink_route::Walk::time.count();
    *result = {time / 1000000000, time % 1000000000};
    return 0;
}

int sched_yield() noexcept
{
    netlink_route::Walk::time += std::chrono::seconds(1);
    return 0;
}

int pthread_cond_clockwait(pthread_cond_t*, pthread_mutex_t*, clockid_t, timespec const*) { return 0; }
