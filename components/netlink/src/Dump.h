// A text stream for dumps: its numbers never follow the host's locale.
#pragma once

#include <locale>
#include <sstream>

namespace netlink_route {

class Dump : public std::ostringstream {
public:
    Dump() { imbue(std::locale::classic()); }
};

} // namespace netlink_route
