// Owns a file descriptor.
#pragma once

#include <unistd.h>

namespace netlink_route {

class Descriptor {
public:
    explicit Descriptor(int toOwn = -1) : descriptor(toOwn) {}
    ~Descriptor() { reset(); }
    Descriptor(Descriptor const&) = delete;
    Descriptor& operator=(Descriptor const&) = delete;

    // -1: none.
    int get() const { return descriptor; }

    // Closes it, and owns the other one.
    void reset(int other = -1)
    {
        if (descriptor >= 0) {
            close(descriptor);
        }
        descriptor = other;
    }

private:
    int descriptor;
};

} // namespace netlink_route
