// The model: walks through the orders in which things can happen between the kernel and the mirror, and looks after each
// one whether the mirror has kept its promises.
//
// A test on a real kernel shows one order of events: the one that the machine happened to choose. What keeps the caches
// true has to hold in every order: when a link goes down between two pieces of an answer, when the notification that was
// lost is the one of an own change, when a reading fails and the next event comes before it is repeated. So here the
// mirror is the real one, with libnl's real caches, and the kernel is not: a few links, addresses and routes in three
// vectors, which notify, drop silently, overrun and answer as Linux does. It takes the place of the sockets when the
// program is linked: this file defines the functions of EventSocket, NoticeSocket and KernelReader, and libnl's cache
// manager. It also defines the clock, and so decides when a pause is over, without ever waiting.
//
// A walk is a list of steps. All walks of one step are taken, then all of two steps, and so on for as long as there is
// time; so the first walk that breaks a promise is one of the shortest. Then come long walks at random; one that fails
// is shortened by leaving steps out. Each walk starts anew, and ends by letting the event thread finish.
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

// ---- What the kernel has ----

enum Table { links, addresses, routes };

using Number = std::uint32_t;

struct Object {
    Table table;
    Number number; // of a link: its index; of an address: its last byte; of a route: its metric
    Number link;   // itself, the one that has the address, or over which the route leads
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

enum How { add, remove, replace, overrun };

struct Change {
    char const* text;
    How how;
    Object object;
};

std::vector<Change> const changes{
    {"the event socket overruns", overrun, {}},
    {"link 1 goes down", replace, {links, 1, 1, 0}},
    {"link 1 goes up", replace, {links, 1, 1, 1}},
    {"link 1 is deleted", remove, {links, 1, 1, 0}},
    {"link 1 is created", add, {links, 1, 1, 1}},
    {"link 2 goes down", replace, {links, 2, 2, 0}},
    {"link 2 goes up", replace, {links, 2, 2, 1}},
    {"address 1 is added", add, {addresses, 1, 1, 0}},
    {"address 1 is removed", remove, {addresses, 1, 1, 0}},
    {"address 1 is renewed", replace, {addresses, 1, 1, 0}},
    {"address 2 is added", add, {addresses, 2, 1, 0}},
    {"address 2 is removed", remove, {addresses, 2, 1, 0}},
    {"route 1 over link 1 is added", add, viaLink1},
    {"route 1 over link 1 is removed", remove, viaLink1},
    {"route 1 is led over link 1", replace, viaLink1},
    {"route 1 over link 2 is added", add, viaLink2},
    {"route 1 over link 2 is removed", remove, viaLink2},
    {"route 1 is led over link 2", replace, viaLink2},
    {"route 2 from address 1 is added", add, withSource},
    {"route 2 from address 1 is removed", remove, withSource},
};

// Linux, as far as the mirror sees it, and its end of the event socket.
class Kernel {
public:
    std::array<List, 3> tables{List{{links, 1, 1, 1}, {links, 2, 2, 1}},
                               List{{addresses, 1, 1, 1}, {addresses, 2, 1, 1}}, List{viaLink1, withSource}};
    std::deque<Object> queue;

    // False: refused. What the change before has led to is done by then: both need the same lock of the kernel.
    bool make(Change const& change)
    {
        finish();
        if (change.how == overrun) {
            isFull = true;
            return !std::exchange(hasOverrun, true);
        }
        Object object = change.object;
        List& all = tables[object.table];
        auto const old = std::find_if(all.begin(), all.end(), [&](Object const& other) {
            bool const mayDiffer = object.table != routes || change.how == replace;
            return other.number == object.number && (mayDiffer || other.link == object.link);
        });
        bool const exists = old != all.end();
        if (change.how == remove) {
            return exists && erase(old);
        }
        object.detail = object.table == addresses ? ++lifetime : object.detail;
        if (exists != (change.how == replace) || !canBe(object) || (exists && *old == object)) {
            return false;
        }
        if (exists) {
            *old = object;
        } else { // addresses behind the others, the rest by number, and behind those of the same number
            auto const isBehind = [&](Object const& other) {
                return object.table != addresses && other.number > object.number;
            };
            all.insert(std::find_if(all.begin(), all.end(), isBehind), object);
        }
        return tell(object, false);
    }

    // Drops the routes that cannot be any more. It notifies nobody, and does so a moment after the notification of the
    // change that led to it.
    void finish()
    {
        List& all = tables[routes];
        auto const isDoomed = [&](Object const& route) { return !canBe(route); };
        all.erase(std::remove_if(all.begin(), all.end(), isDoomed), all.end());
    }

    bool isQuiet() const { return queue.empty() && !hasOverrun; }

    // Whether the socket reports that it has overrun. It takes no more until it has been emptied.
    bool reportOverrun()
    {
        isFull = isFull && !queue.empty();
        return std::exchange(hasOverrun, false);
    }

    Object receive()
    {
        Object const message = queue.front();
        queue.pop_front();
        isFull = isFull && !queue.empty();
        return message;
    }

    void openSocket()
    {
        finish();
        queue.clear();
        isFull = hasOverrun = false;
    }

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
            tell(object, false);
            while (!tables[addresses].empty()) {
                erase(tables[addresses].begin());
            }
        }
        tables[object.table].erase(place);
        return tell(object, true);
    }

    bool tell(Object object, bool isDeleted)
    {
        object.isDeleted = isDeleted;
        queue.resize(queue.size() + (isFull ? 0 : 1), object);
        return true;
    }

    Number lifetime = 1;
    bool hasOverrun = false; // and has not reported it yet
    bool isFull = false;
};

// ---- Its messages, and what libnl makes of them ----

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
    if (table == links) {
        auto const index = static_cast<Number>(rtnl_link_get_ifindex(link));
        return {table, index, index, rtnl_link_get_flags(link) & IFF_UP};
    }
    if (table == addresses) {
        auto const index = static_cast<Number>(rtnl_addr_get_ifindex(address));
        return {table, lastByte(rtnl_addr_get_local(address)), index, rtnl_addr_get_valid_lifetime(address)};
    }
    auto const index = static_cast<Number>(rtnl_route_nh_get_ifindex(rtnl_route_nexthop_n(route, 0)));
    return {table, rtnl_route_get_priority(route), index, lastByte(rtnl_route_get_pref_src(route))};
}

std::string toString(List const& list)
{
    std::ostringstream text;
    for (Object const& object : list) {
        text << " (" << object.number << ' ' << object.link << ' ' << object.detail << ')';
    }
    return text.str();
}

// ---- A walk ----

enum Verb { now, turn, start, endPass, failReading, failWait, slow, fill, before, between, after };

// From `start` on a plan for what comes next.
struct Step {
    Verb verb;
    Change const* change;
};
using Steps = std::vector<Step>;

std::string toString(Steps const& steps)
{
    static constexpr std::array texts{"",
                                      "the event thread takes a turn",
                                      "the next turn is the start of another mirror",
                                      "the next pass will end after one message",
                                      "the next reading will fail",
                                      "the next wait for the kernel will fail",
                                      "the next reading will be slow",
                                      "at the start, when the links are filled, and the addresses not yet: ",
                                      "before the next answer is made: ",
                                      "between two pieces of the next answer: ",
                                      "after the next answer is made: "};
    std::string text;
    for (Step const& step : steps) {
        text += std::string("\n  ") + texts[step.verb] + (step.change != nullptr ? step.change->text : "");
    }
    return text;
}

nl_cache* allocate(char const* name) { return nl_cache_alloc(nl_cache_ops_lookup(name)); }

class Walk {
public:
    Walk()
    {
        current = this;
        begin();
    }

    static inline Walk* current = nullptr; // for the functions that are linked in the place of others
    static inline std::chrono::nanoseconds time = std::chrono::seconds(1); // long ago, so that nothing waits for it

    std::string broken; // the first promise that was, or empty
    Kernel kernel;
    bool isHidden = false;  // the event socket
    bool hasWaited = false; // a thread, for its own change
    int readings = 0;

    // False: not possible here, or of no use.
    bool take(Step const& step)
    {
        ++taken;
        if (step.verb == now) {
            return make(*step.change);
        }
        if (step.verb == turn) {
            return takeTurn() && isAsPlanned();
        }
        plans.push_back(step);
        return true;
    }

    // Lets the event thread finish, and looks at the caches. False: something that was planned did not happen.
    bool finish()
    {
        for (int turns = 0; turns < 100 && takeTurn(); ++turns) {
        }
        expect(mirror->untilDue() < 0, "Something stays dirty for ever.");
        expect(readings <= 4 + 6 * taken, "Much is read for little.");
        kernel.finish();
        for (Table const table : {links, addresses, routes}) {
            expectTrue(table, true, "Nothing is dirty, and a cache differs from the kernel.");
        }
        return isAsPlanned();
    }

    // ---- What happens in a turn ----

    int applyQueue()
    {
        while (!isHidden && !kernel.isQuiet()) {
            if (kernel.reportOverrun()) {
                return -NLE_NOMEM;
            }
            Object const message = kernel.receive();
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

    // A table, or the routes over one link. Routes come in two pieces: the kernel continues behind as many as it has
    // looked at.
    std::optional<Objects> read(Table table, int link = 0)
    {
        ++readings;
        lookAtWaits();
        takePlan(before);
        time += std::chrono::milliseconds(takePlan(slow) ? 2 : 0);
        if (takePlan(failReading)) {
            return std::nullopt;
        }
        Objects answer;
        bool isInOnePiece = table == routes;
        List const& all = kernel.tables[table];
        for (std::size_t i = 0; i < all.size(); ++i) {
            if (answer.size() == 1 && std::exchange(isInOnePiece, false)) {
                takePlan(between);
            }
            if (i < all.size() && (link == 0 || all[i].link == static_cast<Number>(link))) {
                answer.push_back(parse(all[i]));
            }
        }
        takePlan(after);
        return answer;
    }

    bool waitForKernel()
    {
        lookAtWaits();
        bool const done = !takePlan(failWait);
        if (done) {
            kernel.finish();
        }
        return done;
    }

private:
    // libnl fills the link cache, then the address cache; the routes are read.
    void begin()
    {
        isStarting = true;
        kernel.openSocket();
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

    bool make(Change const& change)
    {
        bool const possible = kernel.make(change);
        lookAtWaits();
        return possible;
    }

    // As CacheManager::cacheThread does. With nothing to do it would sleep.
    bool takeTurn()
    {
        if (takePlan(start)) {
            begin();
            return true;
        }
        bool const hasArrived = !kernel.isQuiet();
        int const milliseconds = mirror->untilDue();
        if (!hasArrived && milliseconds < 0) {
            return false;
        }
        time += std::chrono::milliseconds(hasArrived ? 0 : milliseconds);
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
        Change const* const change = plan->change;
        plans.erase(plan);
        isWasted = (change != nullptr && !make(*change)) || isWasted;
        return true;
    }

    bool isAsPlanned() const { return plans.empty() && !isWasted; }

    // ---- The promises ----

    void expect(bool promise, std::string const& what)
    {
        if (!promise && broken.empty()) {
            broken = what;
        }
    }

    // Of routes that are the same to libnl it holds the kernel's first. Order counts among the addresses, if at all.
    void expectTrue(Table table, bool inOrder, char const* promise)
    {
        List fresh = kernel.tables[table];
        List held;
        nl_object* object = nl_cache_get_first(caches[table]);
        for (; object != nullptr; object = nl_cache_get_next(object)) {
            held.push_back(describe(table, object));
        }
        auto const isSame = [](Object const& lhs, Object const& rhs) { return lhs.number == rhs.number; };
        fresh.erase(std::unique(fresh.begin(), fresh.end(), isSame), fresh.end());
        if (table != addresses || !inOrder) {
            std::sort(fresh.begin(), fresh.end());
            std::sort(held.begin(), held.end());
        }
        expect(held == fresh,
               held == fresh ? "" : promise + (" Kernel:" + toString(fresh)) + ", cache:" + toString(held));
    }

    // Whoever waits for an own change goes on as soon as nothing is queued and no turn is in progress. In the
    // constructor nobody does.
    void lookAtWaits()
    {
        hasWaited = isStarting;
        auto const before = time;
        if (!isStarting) {
            mirror->waitForEvents();
        }
        time = before;
        bool const isClean = mirror->untilDue() < 0;
        for (Table const table : {links, addresses, routes}) {
            if (!hasWaited && (table != routes || isClean)) {
                expectTrue(table, isClean, "A thread waited for its own change, and the caches do not have it.");
            }
        }
    }

    static inline std::array const caches{allocate("route/link"), allocate("route/addr"), allocate("route/route")};
    std::optional<CacheMirror> mirror;
    Steps plans;
    bool isStarting = false;
    bool isWasted = false; // a planned change was not possible
    int taken = 0;         // steps
};

// ---- The walks ----

Steps const allSteps = [] {
    Steps steps;
    for (Verb const verb : {turn, start, endPass, failReading, failWait, slow}) {
        steps.push_back({verb, nullptr});
    }
    for (Change const& change : changes) {
        for (Verb const verb : {now, fill, before, between, after}) {
            steps.push_back({verb, &change});
        }
    }
    return steps;
}();

// Plans come right before the turn, in the order of their verbs: another order would do the same. And what a mirror did
// before another one starts is of no use.
bool mayFollow(Steps const& shorter, Step const& step)
{
    Verb const last = shorter.empty() ? now : shorter.back().verb;
    return step.verb == start ? last == now : last <= turn || step.verb == turn || step.verb >= last;
}

// The promise that the walk broke, or an empty text. A walk with a step that is impossible, or has no effect, is useless:
// there is a shorter one. Unless such steps are skipped.
std::optional<std::string> go(Steps const& steps, bool skip)
{
    Walk own;
    for (Step const& step : steps) {
        if (!own.take(step) && !skip) {
            return std::nullopt;
        }
    }
    bool const isUseful = own.finish();
    return isUseful || skip ? std::make_optional(own.broken) : std::nullopt;
}

// Of the processor: on a busy machine a walk takes no longer.
double seconds() { return static_cast<double>(std::clock()) / CLOCKS_PER_SEC; }

TEST(Model, EveryShortWalkKeepsThePromises)
{
    double const limit = seconds() + 20;
    std::vector<Steps> walks{{}};
    std::size_t done = 0;
    for (; done < walks.size() && seconds() < limit; ++done) {
        for (Step const& step : allSteps) {
            Steps longer = walks[done];
            longer.push_back(step);
            if (std::optional<std::string> const broken =
                    mayFollow(walks[done], step) ? go(longer, false) : std::nullopt) {
                ASSERT_EQ("", *broken) << toString(longer);
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
    int taken = 0;
    for (; seconds() < limit; ++taken) {
        Steps walk;
        while (walk.size() < 60) { // a third of them among the six without a change; else there are few turns
            walk.push_back(allSteps[random() % (random() % 3 == 0 ? 6 : allSteps.size())]);
        }
        for (std::size_t i = 0; i < walk.size() && !go(walk, true)->empty();) {
            Steps shorter = walk;
            shorter.erase(shorter.begin() + static_cast<std::ptrdiff_t>(i));
            bool const isNeeded = go(shorter, true)->empty();
            walk = isNeeded ? walk : shorter;
            i = isNeeded ? i + 1 : 0;
        }
        ASSERT_EQ("", *go(walk, true)) << " --gtest_random_seed=" << seed << toString(walk);
    }
    std::cout << taken << " walks, --gtest_random_seed=" << seed << '\n';
}

TEST(Model, NothingIsReadForAnUpdateAndForAdditions)
{
    Walk own;
    int const atStart = own.readings;
    for (std::string const text : {"route 1 over link 1 is removed", "", "address 2 is removed", "address 2 is added",
                                   "route 1 over link 1 is added", ""}) {
        auto const isIt = [&](Change const& change) { return change.text == text; };
        auto const change = std::find_if(changes.begin(), changes.end(), isIt);
        EXPECT_TRUE(own.take(text.empty() ? Step{turn, nullptr} : Step{now, &*change})) << text;
    }
    EXPECT_TRUE(own.finish());
    EXPECT_EQ("", own.broken);
    EXPECT_EQ(atStart, own.readings);
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

// Time passes only as the walk says. A thread that waits for its own change lets others run first: it learns that a
// second has gone by, and gives up.
int clock_gettime(clockid_t /*clock*/, timespec* result) noexcept
{
    auto const time = netlink_route::Walk::time.count();
    *result = {time / 1000000000, time % 1000000000};
    return 0;
}

int sched_yield() noexcept
{
    netlink_route::Walk::current->hasWaited = true;
    netlink_route::Walk::time += std::chrono::seconds(1);
    return 0;
}

int pthread_cond_clockwait(pthread_cond_t* /*condition*/, pthread_mutex_t* /*mutex*/, clockid_t /*clock*/,
                           timespec const* /*deadline*/)
{
    return 0;
}
