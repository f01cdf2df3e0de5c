// Who waits for mutex_man, and how the event thread makes way for them.
#pragma once

namespace netlink_route {

class EventSocket;

// How many objects an event thread changes, in a fraction of a millisecond, before it looks whether somebody waits.
constexpr int objectsAtOnce = 32;

// Locks mutex_man. While the thread waits, it ends the pass that holds the lock, and the one after it, once for each
// millisecond: in a flood of notifications a pass lasts as long as the flood.
void lockMutexMan();

// Whether a thread waits in lockMutexMan().
bool hasWaiters();

// Called by an event thread before it locks again: waits, for five milliseconds at most, until as many threads have had
// the lock as wait now. The event thread would mostly get the lock again before them, since it runs already when it
// releases it.
void letWaitersGo();

// A pass: one call of nl_cache_mngr_data_ready, by the thread that holds mutex_man.
class RunningPass {
public:
    explicit RunningPass(EventSocket& socket);
    ~RunningPass();
    RunningPass(RunningPass const&) = delete;
    RunningPass& operator=(RunningPass const&) = delete;
};

// Has the pass that is running, if any, end after the notification of the moment.
void endRunningPass();

} // namespace netlink_route
