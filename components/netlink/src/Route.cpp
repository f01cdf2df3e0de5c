#include "Route.h"

#include "Dump.h"

#include <utility>

namespace netlink_route {

Route::Route(std::string label) : name(std::move(label)) {}

Route::~Route() = default;

std::string Route::getName() const { return name; }

bool Route::setName(std::string text)
{
    name = std::move(text);
    return true;
}

Address Route::getGateway() const { return gateway; }

bool Route::setGateway(Address const& address)
{
    gateway = address;
    return true;
}

rt_scope_t Route::getScope() const { return scope; }

bool Route::setScope(rt_scope_t value)
{
    scope = value;
    return true;
}

rt_class_t Route::getTable() const { return table; }

bool Route::setTable(rt_class_t value)
{
    table = value;
    return true;
}

unsigned char Route::getProtocol() const { return protocol; }

bool Route::setProtocol(unsigned char value)
{
    protocol = value;
    return true;
}

unsigned char Route::getTos() const { return tos; }

bool Route::setTos(unsigned char value)
{
    tos = value;
    return true;
}

unsigned int Route::getPriority() const { return priority; }

bool Route::setPriority(unsigned int value)
{
    priority = value;
    return true;
}

unsigned char Route::getFamily() const { return family; }

bool Route::setFamily(unsigned char value)
{
    family = value;
    return true;
}

unsigned char Route::getType() const { return type; }

bool Route::setType(unsigned char value)
{
    type = value;
    return true;
}

Address Route::getDestination() const { return destination; }

bool Route::setDestination(Address const& address)
{
    destination = address;
    return true;
}

Address Route::getSource() const { return source; }

bool Route::setSource(Address const& address)
{
    source = address;
    return true;
}

Address Route::getSourcePreferred() const { return sourcePreferred; }

bool Route::setSourcePreferred(Address address)
{
    sourcePreferred = std::move(address);
    return true;
}

std::vector<Address> Route::getHops() const { return hops; }

bool Route::setHops(std::vector<Address> list)
{
    hops = std::move(list);
    return true;
}

bool Route::addHop(Address hop)
{
    hops.push_back(std::move(hop));
    return true;
}

std::string Route::toString() const
{
    Dump dump;
    dump << "route with name       " << name << '\n'
         << "source:               " << source.getAddress() << '\n'
         << "source preferred:     " << sourcePreferred.getAddress() << '\n'
         << "destination:          " << destination.getAddress() << '\n'
         << "gateway:              " << gateway.getAddress() << '\n'
         << "scope:                " << static_cast<int>(scope) << '\n'
         << "table:                " << static_cast<unsigned int>(table) << '\n'
         << "protocol:             " << static_cast<unsigned int>(protocol) << '\n'
         << "tos:                  " << static_cast<unsigned int>(tos) << '\n'
         << "priority:             " << priority << '\n'
         << "family:               " << static_cast<unsigned int>(family) << '\n'
         << "type:                 " << static_cast<unsigned int>(type) << '\n';
    for (Address const& hop : hops) {
        dump << "hop ip address:          " << hop.getAddress() << '\n';
    }
    return dump.str();
}

} // namespace netlink_route
