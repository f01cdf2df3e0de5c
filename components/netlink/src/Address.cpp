#include "Address.h"

#include "Dump.h"

#include <utility>

namespace netlink_route {

Address::Address(std::string text, TYPE kind) : address(std::move(text)), type(kind) {}

std::string Address::getAddress() const { return address; }

Address::TYPE Address::getType() const { return type; }

bool Address::setAddress(std::string text)
{
    address = std::move(text);
    return true;
}

bool Address::setType(TYPE kind)
{
    type = kind;
    return true;
}

std::string Address::toString() const
{
    Dump dump;
    dump << "\taddress               " << address << '\n'
         << "\ttype:                 " << static_cast<int>(type) << '\n';
    return dump.str();
}

} // namespace netlink_route
