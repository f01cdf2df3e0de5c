// What the tests share: the log as syslog receives it, a kernel of their own, and waiting with a deadline.
#pragma once

#include <CacheManager.h>
#include <TraceLevel.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <utility>
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

// Whether nobody holds the lock of the caches.
bool lockIsFree();

// Runs a shell command. `run` expects it to succeed, `output` returns what it printed.
void run(std::string const& command);
std::string output(std::string const& command);

// The links, IPv4 addresses and routes of the kernel, without what it changes by itself.
std::string configuration();

// Whether the condition holds before the time is over.
bool eventually(std::function<bool()> const& condition, std::chrono::milliseconds time = std::chrono::seconds(5));

// Repeats something on a thread of its own for as long as it lives.
class Meanwhile {
public:
    explicit Meanwhile(std::function<void()> work)
        : thread([this, work = std::move(work)] {
              while (!stop) {
                  work();
              }
          })
    {
    }
    ~Meanwhile()
    {
        stop = true;
        thread.join();
    }
    Meanwhile(Meanwhile const&) = delete;
    Meanwhile& operator=(Meanwhile const&) = delete;

private:
    std::atomic<bool> stop{false};
    std::thread thread;
};

// Whether the manager's links are the kernel's within the time, and what it answers as the address of a link and as the
// route to a destination is one of the kernel's; else says what differs. Destinations are those that the kernel has had
// at such a look.
testing::AssertionResult mirrorsKernel(netlink_route::CacheManager const& manager,
                                       std::chrono::milliseconds time = std::chrono::seconds(5));

// The same, and whether it tells all about each link that a manager made now does, the promiscuity count aside: the kernel
// notifies nobody of that.
testing::AssertionResult answersAsNew(netlink_route::CacheManager const& manager,
                                      std::chrono::milliseconds time = std::chrono::seconds(5));

// A link and a route with every field set, each to a value of its own.
netlink_route::Interface linkWithEveryField(std::string const& name);
netlink_route::Route routeWithEveryField();
netlink_route::Route routeTo(std::string const& destination, std::string const& gateway);

inline netlink_route::Address ipv4(std::string const& text) { return {text, netlink_route::Address::IPV4}; }

std::ptrdiff_t openDescriptors();
long residentKiB();

// A test in a network namespace of its own, with two ends of a cable in it: v0 and v1.
class KernelTest : public testing::Test {
protected:
    void SetUp() override;
};

} // namespace test
