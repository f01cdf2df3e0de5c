/// @file
#pragma once

#include "Export.h"
#include "Interface.h"

#include <string>

namespace netlink_route {

/// One VLAN sub-interface: an Interface with a VLAN index. Its name is parent.index, such as eth0.100.
///
/// The name tells the parent only when the VLAN is created. Later the VLAN may be renamed, or moved together with
/// its parent to another name: then the part before the '.' is no more than a text.
class NETLINK_ROUTE_API Vlan : public Interface {
public:
    /// Takes the VLAN index from the number after the first '.' of the name, or at the start of a name without '.':
    /// 0 when there is none, the nearest int when it does not fit. setName leaves the index alone.
    explicit Vlan(std::string linkName);

    ///@{

    /// Values are handed over whole, as those of Interface are.
    Vlan(Vlan const&) = default;
    Vlan(Vlan&&) = default;
    Vlan& operator=(Vlan const&) = default;
    Vlan& operator=(Vlan&&) = default;
    ~Vlan() override;
    ///@}

    ///@{

    /// The VLAN id. Any value is stored; an update sends its low 16 bits.
    int getVlanIndex() const;
    bool setVlanIndex(int newIndex);
    ///@}

    /// The dump of the Interface and one more line with the VLAN index.
    std::string toString() const;

private:
    int vlanIndex = 0;
};

/// @relates netlink_route::Vlan
/// Whether both are equal as Interfaces and have the same VLAN index, where 0 on either side matches anything.
/// There is no operator!= of two Vlans: in C++17 `a != b` compares them as Interfaces; in C++20, which makes it of
/// operator==, the VLAN index counts.
NETLINK_ROUTE_API bool operator==(Vlan const& lhs, Vlan const& rhs);

} // namespace netlink_route
