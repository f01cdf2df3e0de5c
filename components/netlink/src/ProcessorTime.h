// How long a thread has had a processor: on a busy machine the clock on the wall would count what others did, too.
#pragma once

#include <chrono>
#include <ctime>

namespace netlink_route {

// On that clock, such as CLOCK_THREAD_CPUTIME_ID.
inline std::chrono::nanoseconds timeOn(clockid_t clock)
{
    timespec time{};
    clock_gettime(clock, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

} // namespace netlink_route
