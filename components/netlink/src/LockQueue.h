// The event thread lets those who wait for mutex_man go before it.
#pragma once

#include <ctime>

namespace netlink_route {

// How many objects an event thread changes, in a fraction of a millisecond, before it looks whether somebody waits.
constexpr int objectsAtOnce = 32;

// Locks mutex_man. In a flood of notifications a pass of libnl would hold it for as long as the flood lasts, so the
// event thread ends its pass for those who wait. It learns of changes alone: a thread that has waited for a
// millisecond, perhaps for notifications that change nothing, ends the pass itself, and again after one more.
void lockMutexMan();

// A deadline for those who then end the running pass: long enough for an ordinary one to end by itself.
timespec inAMillisecond();

// Whether a thread waits in lockMutexMan().
bool hasWaiters();

// Called by an event thread before it locks again: waits, a few milliseconds at most, until as many have had the lock as
// wait now. Without this it would mostly get the lock again itself, since it runs already when it releases it.
void letWaitersGo();

} // namespace netlink_route
