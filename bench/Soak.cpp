// Load for as long as SOAK_SECONDS says: four threads query, four make changes through the library, and `ip` and `tc`
// make changes drawn by lot (SOAK_SEED) without pause. Every few seconds the changes stop for a moment, and the manager
// must answer as the kernel and as a new manager do. Memory and descriptors must not grow.
#include "Faults.h"
#include "Support.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <sstream>
#include <thread>

namespace netlink_route {
namespace {

using Clock = std::chrono::steady_clock;
using test::ipv4;

class Soak : public test::KernelTest {};

std::atomic<bool> pausing{false};
std::shared_mutex pause; // shared by those who change the kernel, exclusive while the answers are compared
std::atomic<long> queries{0};
std::atomic<long> rounds{0};
std::atomic<long> strangers{0};
std::atomic<long> refusals{0};
std::string changes; // by `ip`, since the last comparison

// What the environment says.
unsigned int setting(char const* name, unsigned int otherwise)
{
    char const* const text = std::getenv(name);
    return text != nullptr ? static_cast<unsigned int>(std::atol(text)) : otherwise;
}

// A number from 0 to below the limit. One thread draws.
unsigned int drawBelow(std::size_t limit)
{
    static std::mt19937 engine(setting("SOAK_SEED", 1));
    return static_cast<unsigned int>(engine() % limit);
}

std::string drawOneOf(std::vector<char const*> const& texts) { return texts[drawBelow(texts.size())]; }

std::shared_lock<std::shared_mutex> waitForPause()
{
    while (pausing) { // the lock alone would let the changes overtake the comparison for ever
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return std::shared_lock<std::shared_mutex>(pause);
}

// Links that this program makes are called v0, m7 or v0.7.
bool isKnown(std::string const& name)
{
    return name == "lo" || (std::string("vwxmpqb").find(name[0]) != std::string::npos && name.size() <= 4);
}

void query(CacheManager const& manager)
{
    for (std::string const& name : manager.getListOfInterfaces()) {
        strangers += isKnown(name) ? 0 : 1;
        manager.getIps(manager.getInterface(name).getIndex());
        manager.getVlan(name);
    }
    manager.getRoute(ipv4("10.2." + std::to_string(queries++ % 10) + ".0/24"));
    std::this_thread::sleep_for(std::chrono::microseconds(200)); // leaves `ip` its share of the processor
}

// ---- What the library changes. Each is called again and again, with a number that counts up. ----

bool changeLinkInUse(CacheManager& manager, std::string const& name, unsigned int i)
{
    Interface wanted(name);
    wanted.setMtu(1280 + i % 200);
    wanted.setUp();
    wanted.addIp(ipv4("10.0." + std::to_string(i % 9) + (name == "v0" ? ".1/24" : ".2/24")), true);
    return manager.update(wanted, -1);
}

bool changeLinkThatIsDown(CacheManager& manager, unsigned int i)
{
    Interface wanted("x0");
    wanted.setGroup(1 + i % 7);
    wanted.setAlias("alias " + std::to_string(i));
    wanted.setModeDormant(i % 3 == 0);
    return manager.update(wanted, 3);
}

bool changeVlanAndAddresses(CacheManager& manager, unsigned int i, bool hasVlans)
{
    Vlan vlan("w0.9");
    vlan.setMtu(1200 + i % 50);
    bool const done = !hasVlans || (manager.update(vlan, -1) && (i % 5 != 0 || manager.remove(vlan)));
    Address const address = ipv4("10.6.0." + std::to_string(i % 9) + "/32");
    i % 2 == 0 ? manager.add(address, 1) : manager.remove(address, 1);
    return done;
}

bool changeRoutes(CacheManager& manager, unsigned int i)
{
    unsigned int const lot = i * 2654435761U >> 16U; // scatters what would match never, or always
    Route route("soak");
    route.setDestination(ipv4("10.2." + std::to_string(i % 10) + ".0/24"));
    route.setGateway(ipv4("127.0.0.2/32"));
    route.setScope(RT_SCOPE_HOST);
    route.setPriority(lot % 3 * 100);
    route.setTable(static_cast<rt_class_t>(lot / 3 % 2 == 0 ? 254 : 100));
    route.setTos(lot / 6 % 2 == 0 ? 0 : 0x10);
    i % 20 != 0 ? manager.update(route, 0) : manager.remove(route); // refused when it is there already, or is not
    return true;
}

// ---- What `ip` and `tc` change. Some of it is refused. ----

// Lines for `ip -batch`, and for `tc`: each %x becomes a number or a word drawn by lot.
char const* const table = R"(
link add link w1 name m%n type macvlan mode private; link add link w1 name m%n type macvlan mode private;
link delete m%n; link set m%n up; link set m%n up; link set m%n up; link set m%n down; link set m%n mtu 13%n0;
link set m%n address 02:00:00:00:0%n:0%n; link set m%n name m%n; link set m%n txqueuelen 1%n0; link set m%n arp off;
link set w1 down; link set w1 up; link set w1 up; link set lo alias a%n group %n; link set v1 mtu 14%n0;
link set v1 down; link set v1 up; link add p%n type veth peer name q%n; link delete q%n; link set p%n up;
link set q%n up; link set p%n master %b; link set m%n master b0; link set p%n nomaster; link set m%n nomaster;
link set %b down; link set %b up; link set %b mtu 12%n0; link set b0 type bridge vlan_filtering 1;
link add link v0 name v0.%n type vlan id %n; link set v0.%n up; link delete v0.%n; address %a 10.1.%n.%n/24 dev %l;
address %a 10.1.%n.%n/24 dev m%n; address %a 10.1.%n.%n/24 dev m%n; address %a 10.1.%n.%n/24 dev m%n;
address %a 10.1.%n.%n/24 dev m%n valid_lft 3%n0 preferred_lft 3%n0; address %a 10.1.%n.%n/25 dev m%n scope link;
address %a 10.1.%n.%n peer 10.5.%n.%n dev m%n; address add 10.1.%n.%n/32 dev m%n; address flush dev m%n;
route %r 10.2.%n.0/24 dev %l %k; route %r 10.2.%n.0/24 dev m%n %k;
route %r 10.2.%n.0/24 via 10.1.%n.%n dev m%n onlink %k; route %r 10.2.%n.0/24 via 10.1.%n.%n dev m%n onlink %k;
route %r 10.2.%n.0/24 via 10.1.%n.%n dev %l onlink %k; route %r 10.2.%n.0/24 via 10.1.%n.%n dev %l onlink %k;
route %r 10.2.%n.0/24 via 10.1.%n.%n; route %r default via 10.1.%n.%n dev m%n onlink %k;
route %r default via 10.1.%n.%n dev %l onlink %k; route %r default dev %l %k src 10.1.%n.%n;
route %r blackhole 10.2.%n.0/24 %k; route %r unreachable default %k; route delete 10.2.%n.0/24;
route delete 10.2.%n.0/24 %k; route delete 10.2.%n.0/24 %k; route delete default %k;
route %r 10.2.%n.0/24 %k nexthop via 10.1.%n.%n dev %l onlink nexthop via 10.1.%n.%n dev m%n onlink weight %n;
route %r 10.2.%n.0/24 %k nexthop via 10.1.%n.%n dev %l onlink nexthop dev %l; route flush table 100;
route flush dev m%n; route flush 10.2.%n.0/24; nexthop replace id 1%n via 10.1.%n.%n dev m%n onlink;
nexthop replace id 1%n via 10.1.%n.%n dev %l onlink; nexthop replace id 1%n blackhole;
nexthop replace id 2%n group 1%n/1%n; nexthop delete id %f%n; nexthop flush dev m%n;
route %r 10.2.%n.0/24 nhid %f%n %k; route %r 10.2.%n.0/24 nhid %f%n %k; route %r default nhid %f%n %k;
qdisc replace dev %l root %q limit 1%n;
)";

std::vector<std::string> linesOf(std::string const& text)
{
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream >> std::ws, line, ';');) {
        lines.push_back(line);
    }
    return lines;
}

std::string drawChange()
{
    static std::vector<std::string> const lines = linesOf(table);
    std::string text = lines[drawBelow(lines.size())];
    for (auto mark = text.find('%'); mark != std::string::npos; mark = text.find('%')) {
        char const kind = text[mark + 1];
        text.replace(mark, 2,
                     kind == 'n'   ? std::to_string(1 + drawBelow(6))
                     : kind == 'f' ? drawOneOf({"1", "2"})
                     : kind == 'l' ? drawOneOf({"v0", "v1", "w1", "b0", "p1", "q1"})
                     : kind == 'b' ? drawOneOf({"b0", "b1"})
                     : kind == 'a' ? drawOneOf({"add", "replace", "delete"})
                     : kind == 'r' ? drawOneOf({"add", "append", "prepend", "replace", "change"})
                     : kind == 'q' ? drawOneOf({"pfifo", "bfifo"})
                                   : drawOneOf({"", "metric 100", "metric 600", "tos 0x10", "table 100",
                                                "table 100 metric 100", "table 300 tos 0x10", "table 255"}));
    }
    return text;
}

void storm()
{
    auto const running = waitForPause();
    std::string ip;
    std::string tc;
    for (int i = 0; i < 40; ++i) {
        std::string const line = drawChange() + "\n";
        (line.compare(0, 5, "qdisc") == 0 ? tc : ip) += line;
    }
    test::run("printf '" + ip + "' | ip -force -batch - >/dev/null 2>&1; printf '" + tc +
              "' | tc -force -batch - >/dev/null 2>&1 || true");
    changes += ip + tc;
    ++rounds;
}

// ---- What must stay as it is. ----

class Record {
public:
    explicit Record(std::chrono::seconds length) : warm(length / 3) {} // by then every destination has been seen

    // To be called while nothing changes.
    void compare(CacheManager const& manager)
    {
        auto const same = test::answersAsNew(manager);
        if (!same) { // printed here, since gtest's record of it would grow
            std::printf("%s\nafter these changes, and those of the library:\n%s", same.message(), changes.c_str());
            ++differences;
        }
        changes.clear();
        test::takeRequests(); // their record would grow
        std::chrono::duration<double> const time = Clock::now() - begin;
        size = test::residentKiB();
        if (time > warm && warmSize == 0) {
            warmSize = size;
            descriptors = test::openDescriptors();
        }
        std::printf("%4.0f s: %s, %ld rounds of queries, %ld of changes, %ld KiB\n", time.count(),
                    same ? "true to the kernel" : "DIFFERENT", queries.load(), rounds.load(), size);
        std::fflush(stdout);
    }

    void judge() const
    {
        std::printf("%d differences that stayed, %ld strangers, %ld refusals, %ld KiB more than when warm\n",
                    differences, strangers.load(), refusals.load(), size - warmSize);
        EXPECT_EQ(0, differences + strangers + refusals);
        EXPECT_LT(size - warmSize, 512); // the heaps grow by 200 in the first minute, by 80 after it
        EXPECT_EQ(descriptors, test::openDescriptors());
    }

private:
    Clock::time_point const begin = Clock::now();
    std::chrono::seconds const warm;
    long size = 0, warmSize = 0;
    std::ptrdiff_t descriptors = 0;
    int differences = 0;
};

// Returns whether the kernel has VLANs.
bool makeLinks()
{
    test::run("ip link add w0 type veth peer name w1; ip link add x0 type veth peer name x1;"
              "ip link add b0 type bridge; ip link add b1 type bond 2>/dev/null || ip link add b1 type bridge;"
              "for i in lo v0 v1 w0 w1 b0 b1; do ip link set $i up; done");
    return test::output("ip link add link v0 name v0.7 type vlan id 7 2>&1; ip link delete v0.7 2>&1 || true").empty();
}

TEST_F(Soak, StaysTrueAndSmall)
{
    std::chrono::seconds const length(setting("SOAK_SECONDS", 60));
    bool const hasVlans = makeLinks();
    std::printf("seed %u, %s VLANs\n", setting("SOAK_SEED", 1), hasVlans ? "with" : "without");
    CacheManager manager;
    Record record(length);
    {
        std::list<test::Meanwhile> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&] { query(manager); });
        }
        auto const repeat = [&](auto change) {
            threads.emplace_back([change, i = 0U]() mutable {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
                auto const running = waitForPause();
                refusals += change(i++) ? 0 : 1;
                ++rounds;
            });
        };
        repeat([&](unsigned int i) { return changeLinkInUse(manager, i % 2 == 0 ? "v0" : "w0", i / 2); });
        repeat([&](unsigned int i) { return changeLinkThatIsDown(manager, i); });
        repeat([&](unsigned int i) { return changeVlanAndAddresses(manager, i, hasVlans); });
        repeat([&](unsigned int i) { return changeRoutes(manager, i); });
        threads.emplace_back(storm);
        for (auto const end = Clock::now() + length; Clock::now() < end;) {
            std::this_thread::sleep_for(std::chrono::seconds(3));
            pausing = true;
            std::unique_lock<std::shared_mutex> const paused(pause);
            record.compare(manager);
            pausing = false;
        }
    }
    record.judge();
}

} // namespace
} // namespace netlink_route
