// When a thread of the caller may be cancelled (pthread_cancel) inside the library.
#pragma once

#include <pthread.h>
#include <unistd.h>

namespace netlink_route {

// Lets no cancellation in while it exists. Cancellation acts by unwinding the stack: in a destructor that would end the
// program, and in the frames of libnl it would leave locks locked and requests without their answers.
class NoCancellation {
public:
    NoCancellation() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before); }
    ~NoCancellation() { pthread_setcancelstate(before, nullptr); }
    NoCancellation(NoCancellation const&) = delete;
    NoCancellation& operator=(NoCancellation const&) = delete;

    // Sleeps for a second, in which the thread can be cancelled as it could before.
    void pause() const
    {
        pthread_setcancelstate(before, nullptr);
        sleep(1);
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    }

private:
    int before = PTHREAD_CANCEL_ENABLE;
};

} // namespace netlink_route
