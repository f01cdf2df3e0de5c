#include "Turns.h"

#include "EventSocket.h"
#include "ProcessorTime.h"

#include <sched.h>

namespace netlink_route {

using namespace std::chrono_literals;

void Turns::setThread(pthread_t thread) { pthread_getcpuclockid(thread, &clock); }

void Turns::begin()
{
    MutexLock const guard(mutex);
    running = true;
}

void Turns::end(bool complete)
{
    reading = false;
    {
        MutexLock const guard(mutex);
        running = !complete;
    }
    ended.notify_all();
}

// A notification that is no longer queued is being applied, in a turn, or has been. If not all have been, waits for the
// turn to end, and not longer than that time.
bool Turns::isCaughtUp(EventSocket const& events, std::chrono::microseconds time)
{
    MutexLock const guard(mutex);
    if (events.isEmpty() && !running) {
        return true;
    }
    if (time > 0us) {
        mutex.waitFor(ended, time);
    }
    return false;
}

// Mostly the event thread needs less than 200 us, and more on a slow machine; to be woken takes as long again. So at first
// this thread only lets others run. Then it looks each millisecond how long the event thread has worked since. What
// counts is the processor time of that thread, its readings aside: the limit is for notifications that come without end,
// not for a large table or a busy processor.
void Turns::wait(EventSocket const& events)
{
    using Clock = std::chrono::steady_clock;
    auto const start = Clock::now();
    while (Clock::now() < start + 500us) {
        if (isCaughtUp(events, 0us)) {
            return;
        }
        sched_yield();
    }
    std::chrono::nanoseconds worked{0};
    std::chrono::nanoseconds before = timeOn(clock);
    while (!isCaughtUp(events, 1ms) && worked < 100ms && Clock::now() < start + 1s) {
        std::chrono::nanoseconds const now = timeOn(clock);
        worked += reading ? 0ns : now - before;
        before = now;
    }
}

} // namespace netlink_route
