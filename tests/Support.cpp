#include "Support.h"

#include "MyLock.h"
#include "NetworkNamespace.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <syslog.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace {

std::mutex logMutex;
std::vector<std::pair<std::thread::id, std::string>> lines;

[[gnu::format(printf, 2, 0)]] void keep(int priority, char const* format, va_list arguments)
{
    char* formatted = nullptr;
    if (vasprintf(&formatted, format, arguments) < 0) {
        return;
    }
    std::string text = std::to_string(priority) + " " + formatted;
    std::free(formatted); // NOLINT
    auto const colon = text.find(".cpp:");
    if (colon != std::string::npos) {
        text.replace(colon + 5, text.find(' ', colon) - colon - 5, "N");
    }
    {
        std::lock_guard<std::mutex> const guard(logMutex);
        lines.emplace_back(std::this_thread::get_id(), text);
    }
    pthread_testcancel(); // the C library's syslog lets cancellation in, too
}

} // namespace

// These stand before the C library's, whose place the program's own symbols take.
extern "C" {
void syslog(int priority, char const* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    keep(priority, format, arguments);
    va_end(arguments);
}

[[gnu::format(printf, 3, 4)]] void __syslog_chk(int priority, int flag, char const* format, ...); // NOLINT
void __syslog_chk(int priority, int /*flag*/, char const* format, ...)                            // NOLINT
{
    va_list arguments;
    va_start(arguments, format);
    keep(priority, format, arguments);
    va_end(arguments);
}
}

namespace test {

namespace {

std::vector<std::string> take(bool own)
{
    std::lock_guard<std::mutex> const guard(logMutex);
    std::vector<std::string> result;
    for (auto const& [thread, text] : lines) {
        if ((thread == std::this_thread::get_id()) == own) {
            result.push_back(text);
        }
    }
    lines.clear();
    return result;
}

} // namespace

std::vector<std::string> takeLog() { return take(true); }

std::vector<std::string> takeLogOfOthers() { return take(false); }

TraceLevel::TraceLevel(int level)
{
    takeLog();
    trace::setLevel(level);
}

TraceLevel::~TraceLevel()
{
    trace::setLevel(0);
    takeLog();
}

bool lockIsFree()
{
    bool const locked = pthread_mutex_trylock(&mutex_man) == 0;
    if (locked) {
        pthread_mutex_unlock(&mutex_man);
    }
    return locked;
}

netlink_route::Interface linkWithEveryField(std::string const& name)
{
    using netlink_route::Address;
    netlink_route::Interface link(name);
    EXPECT_TRUE(link.setGroup(7) && link.setMac({"00:11:22:33:44:55", Address::MAC}) &&
                link.setBroadcast({"ff:ff:ff:ff:ff:fe", Address::MAC}) && link.setMtu(1400) &&
                link.setTxQueueLength(9000) && link.setAlias("uplink") && link.setArpType(6) &&
                link.setQueueingDiscipline("fq") && link.setPromiscuityCount(4) && link.setNbrTxQueues(2) &&
                link.setNbrRxQueues(3) && link.setModeDormant(true) && link.setUp());
    return link;
}

netlink_route::Route routeWithEveryField()
{
    netlink_route::Route route("result");
    EXPECT_TRUE(route.setScope(RT_SCOPE_LINK) && route.setTable(static_cast<rt_class_t>(1000)) &&
                route.setProtocol(RTPROT_BOOT) && route.setTos(8) && route.setPriority(70000) &&
                route.setType(RTN_LOCAL) && route.setDestination(ipv4("10.1.0.0/16")) &&
                route.setSource(ipv4("10.2.0.0/16")) && route.setSourcePreferred(ipv4("10.3.0.1/24")) &&
                route.setGateway(ipv4("10.0.0.1/24")) && route.setHops({ipv4("10.0.0.2/24"), ipv4("10.0.0.3/24")}));
    return route;
}

netlink_route::Route routeTo(std::string const& destination, std::string const& gateway)
{
    netlink_route::Route route("test");
    EXPECT_TRUE(route.setDestination(ipv4(destination)) && route.setGateway(ipv4(gateway)));
    return route;
}

std::string output(std::string const& command)
{
    std::string text;
    std::array<char, 4096> buffer{};
    FILE* const pipe = popen(command.c_str(), "r"); // NOLINT
    while (std::size_t const size = std::fread(buffer.data(), 1, buffer.size(), pipe)) {
        text.append(buffer.data(), size);
    }
    EXPECT_EQ(0, pclose(pipe)) << command;
    return text;
}

void run(std::string const& command) { output(command); }

std::string configuration()
{
    return output("ip -o -d link | sed 's/<[^>]*>//; s/ state [A-Z]*//'; ip -o -4 address; "
                  "ip -4 route show table all | sed 's/ linkdown//'");
}

bool eventually(std::function<bool()> const& condition, std::chrono::milliseconds time)
{
    auto const deadline = std::chrono::steady_clock::now() + time;
    bool holds = condition();
    while (!holds && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        holds = condition();
    }
    return holds;
}

namespace {

using Lines = std::multiset<std::string>; // what is listed twice shows

std::set<std::string> destinations; // that the kernel had at some time

// From what `ip -N` prints of a route: table, type of service, metric, gateways.
std::string routeOfKernel(std::string const& line)
{
    std::istringstream words(line);
    std::string last;
    words >> last;
    std::string const destination = *destinations.insert(last).first;
    std::map<std::string, std::string> given{{"table", "254"}, {"tos", "0"}, {"metric", "0"}};
    for (std::string word; words >> word; last = word) {
        given[last] = (last == "via" ? given["via"] + " " : "") + word;
    }
    return "route to " + destination + ": " + given["table"] + " " +
           std::to_string(std::stoi(given["tos"], nullptr, 0)) + " " + given["metric"] + given["via"];
}

std::string routeOf(netlink_route::Route route)
{
    std::string text = std::to_string(route.getTable()) + " " + std::to_string(route.getTos()) + " " +
                       std::to_string(route.getPriority());
    std::vector<netlink_route::Address> gateways = route.getHops();
    gateways.insert(gateways.begin(), route.getGateway());
    for (auto const& gateway : gateways) {
        std::string const address = gateway.getAddress();
        text += (address.empty() ? "" : " ") + address.substr(0, address.find("/32"));
    }
    return text;
}

// The links, their addresses and the routes.
Lines linesOfKernel()
{
    Lines lines;
    std::istringstream text(
        output(R"(ip -o link | sed -E 's/<([^>]*,)?UP[,>]/up </; s/: </: down </; )"
               R"(s/^[0-9]+: ([^:@]+)[^ ]* (up|down) .* mtu ([0-9]+).* link\/[a-z]+ ([^ ]*).*/\1 \2 \3 \4/'; )"
               R"(ip -4 -o address | sed -E 's,^[0-9]+: ([^ ]+) +inet ([^ ]+).*,address of \1: \2,; s,/32$,,'; )"
               R"(ip -4 -N -o route show table all | sed -E 's/^[0-9]+ //; s,^([0-9.]+) ,\1/32 ,; s/^/route to /')"));
    for (std::string line; std::getline(text, line);) {
        lines.insert(line.compare(0, 9, "route to ") == 0 ? routeOfKernel(line.substr(9)) : line);
    }
    return lines;
}

Lines linesOf(netlink_route::CacheManager const& manager)
{
    Lines lines;
    for (std::string const& name : manager.getListOfInterfaces()) {
        auto const link = manager.getInterface(name);
        lines.insert(name + (link.isUp() ? " up " : " down ") + std::to_string(link.getMtu()) + " " +
                     link.getMac().getAddress());
        for (auto const& ip : manager.getVlan(name).getIps()) {
            lines.insert("address of " + name + ": " + ip.getAddress());
        }
    }
    for (std::string const& destination : destinations) {
        auto route = manager.getRoute(ipv4(destination));
        if (route.isAddedToKernel()) {
            lines.insert("route to " + destination + ": " + routeOf(route));
        }
    }
    return lines;
}

// All about the links, the promiscuity counts and the addresses aside.
Lines dumpsOf(netlink_route::CacheManager const& manager)
{
    auto const known = [](std::string text) {
        auto const promiscuity = text.find("promiscuity");
        text.erase(promiscuity, text.find('\n', promiscuity) - promiscuity);
        return text.erase(text.find("ip address count"));
    };
    Lines dumps;
    for (std::string const& name : manager.getListOfInterfaces()) {
        auto const vlan = manager.getVlan(name);
        dumps.insert(known(manager.getInterface(name).toString()) + known(vlan.toString()) +
                     std::to_string(vlan.getVlanIndex()));
    }
    return dumps;
}

// Whether each line that is held is wanted, and of the wanted lines that are the same up to a colon one is held: of several
// addresses or routes a cache may have any first.
testing::AssertionResult becomeEqual(std::function<Lines()> const& held, std::function<Lines()> const& wanted,
                                     std::chrono::milliseconds time)
{
    std::map<std::string, std::string> missing;
    Lines wrong;
    auto const compare = [&] {
        auto const subject = [](std::string const& line) { return line.substr(0, line.find(": ")); };
        wrong = held();
        missing.clear();
        Lines const right = wanted();
        for (std::string const& line : right) {
            missing.emplace(subject(line), line);
        }
        for (std::string const& line : right) {
            if (auto const found = wrong.find(line); found != wrong.end()) {
                missing.erase(subject(line));
                wrong.erase(found);
            }
        }
        return missing.empty() && wrong.empty();
    };
    return eventually(compare, time) ? testing::AssertionSuccess()
                                     : testing::AssertionFailure() << "missing: " << testing::PrintToString(missing)
                                                                   << "\nwrong: " << testing::PrintToString(wrong);
}

} // namespace

testing::AssertionResult mirrorsKernel(netlink_route::CacheManager const& manager, std::chrono::milliseconds time)
{
    return becomeEqual([&] { return linesOf(manager); }, linesOfKernel, time);
}

testing::AssertionResult answersAsNew(netlink_route::CacheManager const& manager, std::chrono::milliseconds time)
{
    auto const same = mirrorsKernel(manager, time);
    auto const dumpsOfNew = [] { return dumpsOf(netlink_route::CacheManager()); };
    return same ? becomeEqual([&] { return dumpsOf(manager); }, dumpsOfNew, time) : same;
}

std::ptrdiff_t openDescriptors()
{
    std::filesystem::directory_iterator const all("/proc/self/fd");
    return std::distance(begin(all), end(all));
}

long residentKiB()
{
    std::ifstream status("/proc/self/statm");
    long size = 0;
    long resident = 0;
    status >> size >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

void KernelTest::SetUp()
{
    ASSERT_TRUE(enterNewNetwork()) << "this user may make neither network nor user namespaces";
    run("ip link add v0 type veth peer name v1");
}

} // namespace test
