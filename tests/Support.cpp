#include "Support.h"

#include "MyLock.h"

#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <iterator>
#include <mutex>
#include <netlink/cache.h>
#include <netlink/route/link.h>
#include <netlink/route/nexthop.h>
#include <netlink/route/route.h>
#include <sched.h>
#include <set>
#include <sstream>
#include <syslog.h>
#include <thread>
#include <unistd.h>

namespace {

std::mutex logMutex;
std::vector<std::pair<std::thread::id, std::string>> lines;
std::atomic<int> sleeps{0};
std::atomic<int> refills{0};
std::atomic<int> lockedRefills{0};
std::atomic<int> unlockedChanges{0};
int allocations = 0;
int failFrom = 0;
const int firstNamespace = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);

[[gnu::format(printf, 2, 0)]] void keep(int priority, const char* format, va_list arguments)
{
    va_list copy;
    va_copy(copy, arguments);
    const int size = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    std::string text(static_cast<std::size_t>(size) + 1, '\0');
    std::vsnprintf(text.data(), text.size(), format, arguments);
    text.pop_back();
    const auto colon = text.find(".cpp:");
    if (colon != std::string::npos) {
        text.replace(colon + 5, text.find(' ', colon) - colon - 5, "N");
    }
    const std::lock_guard<std::mutex> guard(logMutex);
    lines.emplace_back(std::this_thread::get_id(), std::to_string(priority) + " " + text);
}

template <typename Function>
Function* next(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

bool failsNow() { return failFrom != 0 && ++allocations >= failFrom; }

} // namespace

// These stand before the C library's and libnl's, whose place the program's own symbols take.
extern "C" {
void syslog(int priority, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    keep(priority, format, arguments);
    va_end(arguments);
}

[[gnu::format(printf, 3, 4)]] void __syslog_chk(int priority, int flag, const char* format, ...); // NOLINT
void __syslog_chk(int priority, int /*flag*/, const char* format, ...)                            // NOLINT
{
    va_list arguments;
    va_start(arguments, format);
    keep(priority, format, arguments);
    va_end(arguments);
}

unsigned int sleep(unsigned int seconds)
{
    ++sleeps;
    return next<decltype(sleep)>("sleep")(seconds);
}

int nl_cache_refill(nl_sock* socket, nl_cache* cache)
{
    ++refills;
    lockedRefills += test::lockIsFree() ? 0 : 1;
    return next<decltype(nl_cache_refill)>("nl_cache_refill")(socket, cache);
}

int nl_cache_move(nl_cache* cache, nl_object* object)
{
    unlockedChanges += test::lockIsFree() ? 1 : 0;
    return next<decltype(nl_cache_move)>("nl_cache_move")(cache, object);
}

void nl_cache_remove(nl_object* object)
{
    unlockedChanges += test::lockIsFree() ? 1 : 0;
    next<decltype(nl_cache_remove)>("nl_cache_remove")(object);
}

rtnl_link* rtnl_link_alloc()
{
    return failsNow() ? nullptr : next<decltype(rtnl_link_alloc)>("rtnl_link_alloc")();
}

rtnl_route* rtnl_route_alloc()
{
    return failsNow() ? nullptr : next<decltype(rtnl_route_alloc)>("rtnl_route_alloc")();
}

rtnl_nexthop* rtnl_route_nh_alloc()
{
    return failsNow() ? nullptr : next<decltype(rtnl_route_nh_alloc)>("rtnl_route_nh_alloc")();
}
}

namespace test {

namespace {

std::vector<std::string> take(bool own)
{
    const std::lock_guard<std::mutex> guard(logMutex);
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

void failAllocations(int first)
{
    allocations = 0;
    failFrom = first;
}

int sleepCount() { return sleeps; }

int refillCount() { return refills; }

int lockedRefillCount() { return lockedRefills; }

int unlockedChangeCount() { return unlockedChanges; }

bool lockIsFree()
{
    const bool locked = pthread_mutex_trylock(&mutex_man) == 0;
    if (locked) {
        pthread_mutex_unlock(&mutex_man);
    }
    return locked;
}

std::string output(std::string const& command)
{
    std::string text;
    std::array<char, 4096> buffer{};
    FILE* const pipe = popen(command.c_str(), "r"); // NOLINT
    while (const std::size_t size = std::fread(buffer.data(), 1, buffer.size(), pipe)) {
        text.append(buffer.data(), size);
    }
    EXPECT_EQ(0, pclose(pipe)) << command;
    return text;
}

void run(std::string const& command) { output(command); }

bool eventually(std::function<bool()> const& condition, std::chrono::milliseconds time)
{
    const auto deadline = std::chrono::steady_clock::now() + time;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return condition();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

namespace {

// The lines that the command prints, in words.
std::vector<std::vector<std::string>> readWords(std::string const& command)
{
    std::istringstream text(output(command));
    std::vector<std::vector<std::string>> rows;
    for (std::string line; std::getline(text, line);) {
        std::istringstream words(line);
        rows.emplace_back(std::istream_iterator<std::string>(words), std::istream_iterator<std::string>());
    }
    return rows;
}

std::string describeKernel()
{
    std::set<std::string> withAddress;
    for (auto const& row : readWords("ip -4 -o address")) {
        withAddress.insert(row.at(1));
    }
    std::set<std::string> links;
    for (auto const& row : readWords("ip -o link | sed -E 's/^[0-9]+: ([^:@]+)[^<]*<(.*)> mtu ([0-9]+).*"
                                     " link\\/[a-z]+ ([^ ]*).*/\\1 ,\\2, \\3 \\4/'")) {
        const bool up = row.at(1).find(",UP,") != std::string::npos;
        links.insert(row[0] + (up ? " up " : " down ") + row.at(2) + " " + row.at(3) +
                     (withAddress.count(row[0]) != 0 ? " with address" : "") + "\n");
    }
    std::string text;
    for (auto const& link : links) {
        text += link;
    }
    return text;
}

std::string describeMirror(netlink_route::CacheManager const& manager)
{
    std::multiset<std::string> links; // a link that is listed twice shows
    for (std::string const& name : manager.getListOfInterfaces()) {
        const auto link = manager.getInterface(name);
        links.insert(name + (link.isUp() ? " up " : " down ") + std::to_string(link.getMtu()) + " " +
                     link.getMac().getAddress() + (link.getIps().empty() ? "" : " with address") + "\n");
    }
    std::string text;
    for (auto const& link : links) {
        text += link;
    }
    return text;
}

// What the manager says wrongly of the kernel's addresses and routes.
std::string findDifference(netlink_route::CacheManager const& manager)
{
    const std::string addresses = output("ip -4 -o address");
    for (std::string const& name : manager.getListOfInterfaces()) {
        for (auto const& ip : manager.getInterface(name).getIps()) {
            if (addresses.find(name + "    inet " + ip.getAddress() + " ") == std::string::npos &&
                addresses.find(name + "    inet " + ip.getAddress() + "/32 ") == std::string::npos) {
                return name + " has no address " + ip.getAddress();
            }
        }
    }
    for (auto const& row :
         readWords("ip -4 route show table all type unicast | { grep -v nexthop || true; }")) {
        const bool complete = row.at(0).find('/') != std::string::npos || row[0] == "default";
        if (!manager.getRoute(ipv4(complete ? row[0] : row[0] + "/32")).isAddedToKernel()) {
            return "no route to " + row[0];
        }
    }
    return "";
}

} // namespace

testing::AssertionResult mirrorsKernel(netlink_route::CacheManager const& manager,
                                       std::chrono::milliseconds time)
{
    std::string links;
    std::string mirror;
    std::string difference;
    const bool same = eventually(
        [&] {
            links = describeKernel();
            mirror = describeMirror(manager);
            difference = findDifference(manager);
            return links == mirror && difference.empty();
        },
        time);
    return same ? testing::AssertionSuccess()
                : testing::AssertionFailure() << "kernel:\n"
                                              << links << "manager:\n"
                                              << mirror << difference;
}

void KernelTest::SetUp()
{
    ASSERT_EQ(0, unshare(CLONE_NEWNET)) << "the tests need the right to make network namespaces";
    run("ip link add v0 type veth peer name v1");
}

void KernelTest::TearDown() { trace::setLevel(0); }

std::string testNic()
{
    const char* const name = std::getenv("NETLINK_ROUTE_TEST_NIC");
    return name != nullptr ? name : "";
}

void enterFirstNamespace() { ASSERT_EQ(0, setns(firstNamespace, CLONE_NEWNET)); }

} // namespace test
