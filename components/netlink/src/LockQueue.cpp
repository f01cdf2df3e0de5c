#include "LockQueue.h"

#include "EventSocket.h"
#include "MyLock.h"

#include <atomic>
#include <unistd.h>

namespace netlink_route {

namespace {

// How many threads have had to wait so far, and how many of them have had their turn.
std::atomic<unsigned int> arrived{0};
std::atomic<unsigned int> served{0};

} // namespace

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

void lockMutexMan()
{
    if (pthread_mutex_trylock(&mutex_man) == 0) {
        return;
    }
    ++arrived;
    timespec deadline = inAMillisecond();
    while (pthread_mutex_timedlock(&mutex_man, &deadline) != 0) { // again: another pass may have begun meanwhile
        EventSocket::endRunningPass();
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

} // namespace netlink_route
