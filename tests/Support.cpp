#include "Support.h"

#include "MyLock.h"

#include <array>
#include <atomic>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
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
#include <utility>

namespace {

std::mutex logMutex;
std::vector<std::pair<std::thread::id, std::string>> lines;
std::atomic<int> sleeps{0};
std::atomic<int> refills{0};
std::atomic<int> lockedRefills{0};
std::atomic<int> unlockedChanges{0};
thread_local int allocations = 0;
thread_local int failFrom = 0;
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

rtnl_link* rtnl_link_alloc() { return failsNow() ? nullptr : next<decltype(rtnl_link_alloc)>("rtnl_link_alloc")(); }

rtnl_route* rtnl_route_alloc() { return failsNow() ? nullptr : next<decltype(rtnl_route_alloc)>("rtnl_route_alloc")(); }

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

using Lines = std::multiset<std::string>; // what is listed twice shows

std::map<std::string, std::string> addressesOfKernel() // of each link, between blanks
{
    std::map<std::string, std::string> addresses;
    for (auto const& row : readWords("ip -4 -o address | sed 's,/32 , ,'")) {
        addresses[row.at(1)] += " " + row.at(3) + " ";
    }
    return addresses;
}

Lines linesOfKernel()
{
    Lines lines;
    for (auto const& row : readWords("ip -o link | sed -E 's/^[0-9]+: ([^:@]+)[^<]*<(.*)> mtu ([0-9]+).*"
                                     " link\\/[a-z]+ ([^ ]*).*/\\1 ,\\2, \\3 \\4/'")) {
        const bool up = row.at(1).find(",UP,") != std::string::npos;
        lines.insert(row[0] + (up ? " up " : " down ") + row.at(2) + " " + row.at(3));
    }
    return lines;
}

Lines linesOf(netlink_route::CacheManager const& manager)
{
    Lines lines;
    for (std::string const& name : manager.getListOfInterfaces()) {
        const auto link = manager.getInterface(name);
        lines.insert(name + (link.isUp() ? " up " : " down ") + std::to_string(link.getMtu()) + " " +
                     link.getMac().getAddress());
    }
    return lines;
}

// A link whose address is none of those that the kernel has for it, or missing, or "".
std::string wrongAddress(netlink_route::CacheManager const& manager)
{
    auto addresses = addressesOfKernel();
    for (std::string const& name : manager.getListOfInterfaces()) {
        const auto ips = manager.getInterface(name).getIps();
        const std::string& held = addresses[name];
        if (ips.empty() ? !held.empty() : held.find(" " + ips[0].getAddress() + " ") == std::string::npos) {
            return "address of " + name;
        }
    }
    return "";
}

// A destination that the kernel has and the manager has not, or the other way round, or "".
std::string wrongRoute(netlink_route::CacheManager const& manager)
{
    static std::set<std::string> seen; // at some time
    std::set<std::string> there;
    for (auto const& row : readWords("ip -4 route show table all | sed '/^[[:space:]]/d'")) {
        const std::string& word =
            std::isdigit(row.at(0)[0]) != 0 || row[0] == "default" ? row[0] : row.at(1); // the type
        const bool complete = word.find('/') != std::string::npos || word == "default";
        there.insert(complete ? word : word + "/32");
    }
    seen.insert(there.begin(), there.end());
    for (std::string const& destination : seen) {
        const bool held = manager.getRoute(ipv4(destination)).isAddedToKernel();
        if (held != (there.count(destination) != 0)) {
            return (held ? "has a ghost " : "lacks ") + destination;
        }
    }
    return "";
}

} // namespace

testing::AssertionResult mirrorsKernel(netlink_route::CacheManager const& manager, std::chrono::milliseconds time)
{
    Lines kernel;
    Lines mirror;
    std::string wrong;
    const bool same = eventually(
        [&] {
            kernel = linesOfKernel();
            mirror = linesOf(manager);
            wrong = wrongAddress(manager) + wrongRoute(manager);
            return kernel == mirror && wrong.empty();
        },
        time);
    return same ? testing::AssertionSuccess()
                : testing::AssertionFailure()
                      << "kernel: " << testing::PrintToString(kernel) << "\nmanager: " << testing::PrintToString(mirror)
                      << "\nwrong: " << wrong;
}

std::ptrdiff_t openDescriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
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
    ASSERT_EQ(0, unshare(CLONE_NEWNET)) << "the tests need the right to make network namespaces";
    run("ip link add v0 type veth peer name v1");
}

std::string testNic()
{
    const char* const name = std::getenv("NETLINK_ROUTE_TEST_NIC");
    return name != nullptr ? name : "";
}

void enterFirstNamespace() { ASSERT_EQ(0, setns(firstNamespace, CLONE_NEWNET)); }

} // namespace test
