// What the tests share: the log as syslog receives it, a kernel of their own, and waiting with a deadline.
#pragma once

#include <CacheManager.h>
#include <TraceLevel.h>

#include <chrono>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace test {

// The lines that went to syslog since the last call of either: "priority text", the source line written as N. The
// first returns those of the calling thread, the second those of all others, such as the event thread.
std::vector<std::string> takeLog();
std::vector<std::string> takeLogOfOthers();

// Sets the trace level for a scope, and starts it with an empty log.
class TraceLevel {
public:
    explicit TraceLevel(int level);
    ~TraceLevel();
    TraceLevel(TraceLevel const&) = delete;
    TraceLevel& operator=(TraceLevel const&) = delete;
};

// Makes libnl's allocations of links, routes and next hops fail, the n-th of each and every later one, 0: none.
void failAllocations(int first);

// How often, all in all, sleep(3) was called, libnl's function that reads a whole table from the kernel, and the
// same while the lock of the caches was held.
int sleepCount();
int refillCount();
int lockedRefillCount();

// How often libnl's function that adds to a cache of a manager was called while the lock of the caches was free.
int unlockedChangeCount();

// Whether nobody holds the lock of the caches.
bool lockIsFree();

// Runs a shell command. `run` expects it to succeed, `output` returns what it printed.
void run(std::string const& command);
std::string output(std::string const& command);

// Whether the condition holds before the time is over.
bool eventually(std::function<bool()> const& condition,
                std::chrono::milliseconds time = std::chrono::milliseconds(1000));

// Whether the manager's links, first addresses and routes are the kernel's within the time; else says what differs.
testing::AssertionResult mirrorsKernel(netlink_route::CacheManager const& manager,
                                       std::chrono::milliseconds time = std::chrono::milliseconds(1000));

inline netlink_route::Address ipv4(std::string const& text) { return {text, netlink_route::Address::IPV4}; }

std::ptrdiff_t openDescriptors();
long residentKiB();

// A test in a network namespace of its own, with two ends of a cable in it: v0 and v1.
class KernelTest : public testing::Test {
protected:
    void SetUp() override;
};

// The name of an ordinary NIC that the tests may change, or "".
std::string testNic();

// Goes back to the namespace in which the test program was started.
void enterFirstNamespace();

} // namespace test
