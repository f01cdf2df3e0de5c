// The event thread lets those who wait for mutex_man go before it.
#pragma once

namespace netlink_route {

// Locks mutex_man. A thread that has waited for half a millisecond ends the pass of libnl that is running, and does so
// again after each further half: in a flood of notifications a pass would hold the lock for as long as the flood lasts.
void lockMutexMan();

// Called by an event thread before it locks again: waits, a few milliseconds at most, until those who wait now have had
// the lock. Without this it would mostly get the lock again itself, since it runs already when it releases it.
void letWaitersGo();

} // namespace netlink_route
