#include "LockQueue.h"

#include "EventSocket.h"
#include "Locks.h"
#include "MyLock.h"

#include <atomic>
#include <ctime>
#include <unistd.h>

namespace netlink_route {

namespace {

// How many threads have had to wait so far, and how many of them have had their turn.
std::atomic<unsigned int> arrived{0};
std::atomic<unsigned int> served{0};

Mutex passMutex;
EventSocket* running GUARDED_BY(passMutex) = nullptr; // of the pass that holds mutex_man

// Long enough for an ordinary pass to end by itself.
timespec inAMillisecond()
{
    constexpr long second = 1000000000; // in nanoseconds
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    time.tv_nsec += second / 1000;
    if (time.tv_nsec >= second) {
        time.tv_nsec -= second;
        ++time.tv_sec;
    }
    return time;
}

} // namespace

void lockMutexMan()
{
    if (pthread_mutex_trylock(&mutex_man) == 0) {
        return;
    }
    ++arrived;
    timespec deadline = inAMillisecond();
    while (pthread_mutex_timedlock(&mutex_man, &deadline) != 0) { // again: another pass may have begun meanwhile
        endRunningPass();
        deadline = inAMillisecond();
    }
    ++served;
}

bool hasWaiters() { return arrived != served; }

void letWaitersGo()
{
    unsigned int const before = arrived;
    for (int i = 0; i < 100 && static_cast<int>(served - before) < 0; ++i) {
        usleep(50);
    }
}

RunningPass::RunningPass(EventSocket& socket)
{
    MutexLock const guard(passMutex);
    running = &socket;
}

RunningPass::~RunningPass()
{
    MutexLock const guard(passMutex);
    running->show();
    running = nullptr;
}

void endRunningPass()
{
    MutexLock const guard(passMutex);
    if (running != nullptr) {
        running->hide();
    }
}

} // namespace netlink_route
