// Running out of memory where no exception may pass: on the event thread, and below the frames of libnl.
#pragma once

#include <new>

namespace netlink_route {

// Calls the function. False when it threw std::bad_alloc. (Built without exceptions, the program ends instead.)
template <typename Function>
bool fitsInMemory(Function function) noexcept
{
#ifdef __cpp_exceptions
    try {
        function();
    } catch (std::bad_alloc const&) {
        return false;
    }
#else
    function();
#endif
    return true;
}

} // namespace netlink_route
