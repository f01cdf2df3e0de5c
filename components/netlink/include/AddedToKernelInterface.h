/// @file
#pragma once

#include "Export.h"

namespace netlink_route {

/// Root of the value classes for links and routes: knows whether the value was read from the kernel.
///
/// The flag is false on every value that a caller makes. The queries of CacheManager set it on what they
/// found; nothing in the library clears or reads it.
class NETLINK_ROUTE_API AddedToKernelInterface {
public:
    ///@{

    /// The flag is false at first. Copies carry it with them.
    AddedToKernelInterface() = default;
    AddedToKernelInterface(AddedToKernelInterface const&) = default;
    AddedToKernelInterface& operator=(AddedToKernelInterface const&) = default;
    virtual ~AddedToKernelInterface();
    ///@}

    /// Whether a query found this value in the caches. Ask it of every answer before using the answer.
    /// Not const: keep the answer in a variable that is not const.
    bool isAddedToKernel();

    /// Stores the flag. Always true.
    bool setAddedToKernel(bool added);

private:
    bool addedToKernel = false;
};

} // namespace netlink_route
