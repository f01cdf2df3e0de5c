// Faults that tests inject below the library, and a count of what it asks the kernel for.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <vector>

namespace test {

// ---- Faults ----

// So many requests that the process sends next fail, as if the kernel had no memory for them: every other one says so.
extern std::atomic<int> failingRequests;

// Whether no thread can be started.
extern std::atomic<bool> threadFails;

// Whether poll fails at once where it would wait.
extern std::atomic<bool> pollFails;

// Whether libnl fills caches as when the kernel changes meanwhile: it begins again without clearing.
extern std::atomic<bool> fillTwice;

// Whether notifications of removed routes are lost, as of those that a kernel drops silently.
extern std::atomic<bool> hideRouteRemovals;

// Has that done, once, just before the next dump, or in the middle of it: when the kernel has made its first piece.
void beforeReading(std::function<void()> action);
void duringReading(std::function<void()> action);

// The same in the middle of the next pass of libnl: when it puts the first object into a cache.
void duringPass(std::function<void()> action);

// Makes libnl's allocations of links, routes and next hops fail, the n-th of each and every later one, 0: none.
void failAllocations(int first);

// ---- Counts, all in all ----

extern std::atomic<int> sleeps;          // calls of sleep(3)
extern std::atomic<int> tablesRead;      // requests for a whole table
extern std::atomic<long> objectsApplied; // objects that libnl put into caches
extern std::atomic<int>
    unlockedChanges; // those that another thread than the main one put there while the lock was free

// Whether a thread was cancelled, in this process.
extern std::atomic<bool> cancelled;

// The last link request that was sent, as bytes.
std::string lastLinkRequest();

// Sends a message to the event socket of the only manager of this process, as if the kernel had notified it.
void notifyManager(std::vector<char> message);

// A network namespace beside the one of the test, where commands can be run: ip("link set x netns " + path()).
class OtherNamespace {
public:
    OtherNamespace();
    ~OtherNamespace();
    OtherNamespace(OtherNamespace const&) = delete;
    OtherNamespace& operator=(OtherNamespace const&) = delete;
    std::string path() const;
    void run(std::string const& command) const;

private:
    int descriptor = -1;
};

} // namespace test
