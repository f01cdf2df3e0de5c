// Faults that tests inject below the library, and a count of what it asks the kernel for.
#pragma once

#include <atomic>
#include <dlfcn.h>
#include <functional>
#include <string>
#include <vector>

namespace test {

// The function in whose place a function of the program stands.
template <typename Function>
Function* next(char const* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// ---- Faults ----

// So many requests that the process sends next fail: each other one is sent and says that it is not, so that its answer
// stays in the socket, and the one after it is not sent and says nothing.
inline std::atomic<int> failingRequests{0};

// The next dump with messages of that type says that the tables changed while the kernel made it. 0: none.
inline std::atomic<int> interruptedDump{0};

// Whether no thread can be started.
inline std::atomic<bool> threadFails{false};

// Whether poll fails at once where it would wait.
inline std::atomic<bool> pollFails{false};

// Whether sleep(3) returns at once, as when a signal arrives.
inline std::atomic<bool> signalEndsSleep{false};

// Whether the kernel refuses receive buffers beyond the host's limit, as without CAP_NET_ADMIN.
inline std::atomic<bool> refuseLargeBuffers{false};

// Has that done, once, in the middle of the next dump: when the kernel has made its first piece.
void duringReading(std::function<void()> action);

// The same in the middle of the next pass of libnl: when it puts the first object into a cache.
void duringPass(std::function<void()> action);

// Makes libnl's allocations of links, routes and next hops fail, the n-th of each and every later one, 0: none.
void failAllocations(int first);

// ---- Counts, all in all ----

inline std::atomic<int> sleeps{0};       // seconds that sleep(3) was asked for
inline std::atomic<int> timedPolls{0};   // calls of poll(2) with a timeout
inline std::atomic<int> replacements{0}; // calls of dup3(2); each first one fails, as beside a thread that opens a file
inline std::atomic<long> objectsApplied{0}; // objects that libnl put into caches
// Those that were put there, and references to those there that were dropped, while the lock was free.
inline std::atomic<int> unlockedChanges{0};

// What the process has asked the kernel since the last call, in order: L, A, R for the tables of links, addresses and
// routes, r for the routes of a link, n for nexthop objects, w whether a change is over, l for a link as an event.
std::string takeRequests();

// Whether a thread was cancelled, in this process.
inline std::atomic<bool> cancelled{false};

// The last link request that was sent, as bytes.
std::string lastLinkRequest();

// Sends a message to the members of a group, as if the kernel had notified it.
void notify(int group, std::vector<char> message);

} // namespace test
