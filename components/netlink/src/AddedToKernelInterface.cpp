#include "AddedToKernelInterface.h"

namespace netlink_route {

AddedToKernelInterface::~AddedToKernelInterface() = default;

bool AddedToKernelInterface::isAddedToKernel() { return addedToKernel; }

bool AddedToKernelInterface::setAddedToKernel(bool added)
{
    addedToKernel = added;
    return true;
}

} // namespace netlink_route
