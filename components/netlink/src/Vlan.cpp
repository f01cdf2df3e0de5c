#include "Vlan.h"

#include "Cancellation.h"
#include "Dump.h"
#include "Trace.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <utility>

namespace netlink_route {

namespace {

// Leading blanks are skipped, what follows the digits is ignored, and a number that does not fit gives the nearest
// bound.
int parseVlanIndex(std::string const& name)
{
    auto const dot = name.find('.');
    auto const begin = dot == std::string::npos ? 0 : dot + 1;
    long const number = std::strtol(name.c_str() + begin, nullptr, 10);
    return static_cast<int>(std::clamp<long>(number, INT_MIN, INT_MAX));
}

} // namespace

Vlan::Vlan(std::string linkName) : Interface(std::move(linkName)), vlanIndex(parseVlanIndex(getName())) {}

Vlan::~Vlan() = default;

int Vlan::getVlanIndex() const { return vlanIndex; }

bool Vlan::setVlanIndex(int newIndex)
{
    vlanIndex = newIndex;
    return true;
}

std::string Vlan::toString() const
{
    Dump dump;
    dump << Interface::toString() << "vlan index:    " << vlanIndex << '\n';
    return dump.str();
}

bool operator==(Vlan const& lhs, Vlan const& rhs)
{
    NoCancellation const guard;
    bool const sameInterface = static_cast<Interface const&>(lhs) == static_cast<Interface const&>(rhs);
    TRACE_DEBUG2("compare lhs: %s", lhs.toString().c_str());
    TRACE_DEBUG2("compare rhs: %s", rhs.toString().c_str());
    TRACE_DEBUG2("vlan is interface wise the same : %s", sameInterface ? "yes" : "no");
    if (!sameInterface) {
        return false;
    }
    int const left = lhs.getVlanIndex();
    int const right = rhs.getVlanIndex();
    return left == 0 || right == 0 || left == right;
}

} // namespace netlink_route
