// The turns of the event thread, as the callers see them who wait until their changes are in the caches.
#pragma once

#include "Locks.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <pthread.h>

namespace netlink_route {

class EventSocket;

// In a turn the event thread applies the notifications that have arrived, and reads what is due.
//
// Threading: wait() by any thread, setThread() by the thread that makes the manager, the rest by the event thread.
class Turns {
public:
    // Says which thread is the event thread.
    void setThread(pthread_t thread);

    void begin();
    // From now to its end, the turn reads the kernel, and changes the caches accordingly.
    void beginReading() { reading = true; }
    // Not complete: only a reading that is still to come will show what has changed.
    void end(bool complete);

    // Waits until all that is queued on the event socket has been applied. Gives up when the event thread has worked on
    // notifications for a tenth of a second, or after a second.
    void wait(EventSocket const& events);

private:
    bool isCaughtUp(EventSocket const& events, std::chrono::microseconds time);

    Mutex mutex;
    std::condition_variable ended;
    bool running GUARDED_BY(mutex) = false; // or the last one was not complete
    std::atomic<bool> reading{false};
    clockid_t clock = -1; // counts the processor time of the event thread
};

} // namespace netlink_route
