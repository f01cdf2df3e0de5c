// Shows the links of this machine; given names, everything that is known of those links. It only reads.
//
//     show [NAME...]
//
// TRACE_LEVEL=9 in the environment shows the library at work, on standard error and in the system log.
#include <netlink_route/CacheManager.h>

#include <algorithm>
#include <cstddef>
#include <iomanip>
#include <iostream>
#include <string>
#include <syslog.h>
#include <vector>

namespace {

using Row = std::vector<std::string>;

Row describe(netlink_route::Interface const& link)
{
    auto const ips = link.getIps();
    return {std::to_string(link.getIndex()), link.getName(),
            link.isUp() ? "up" : "down",     std::to_string(link.getMtu()),
            link.getMac().getAddress(),      ips.empty() ? "" : ips.front().getAddress()};
}

void printAligned(std::vector<Row> const& table)
{
    std::vector<std::size_t> widths(table.front().size());
    for (Row const& row : table) {
        for (std::size_t column = 0; column < row.size(); ++column) {
            widths[column] = std::max(widths[column], row[column].size());
        }
    }
    for (Row const& row : table) {
        std::string line;
        for (std::size_t column = 0; column < row.size(); ++column) {
            line += row[column] + std::string(widths[column] - row[column].size() + 2, ' ');
        }
        line.erase(line.find_last_not_of(' ') + 1);
        std::cout << line << '\n';
    }
}

void listLinks(netlink_route::CacheManager const& manager)
{
    std::vector<Row> table{{"INDEX", "NAME", "STATE", "MTU", "MAC", "IPV4"}};
    for (std::string const& name : manager.getListOfInterfaces()) {
        auto link = manager.getInterface(name);
        if (link.isAddedToKernel()) { // it may be gone by now
            table.push_back(describe(link));
        }
    }
    printAligned(table);
}

bool dumpLink(netlink_route::CacheManager const& manager, std::string const& name)
{
    auto link = manager.getInterface(name);
    if (!link.isAddedToKernel()) {
        std::cerr << "show: there is no link named '" << name << "'\n";
        return false;
    }
    auto const vlan = manager.getVlan(name);
    std::cout << (vlan.getVlanIndex() > 0 ? vlan.toString() : link.toString()) << '\n';
    return true;
}

} // namespace

int main(int argc, char* argv[])
{
    if (argc > 1 && argv[1][0] == '-') {
        std::cerr << "usage: show [NAME...]\n";
        return 2;
    }
    openlog("show", LOG_PERROR, LOG_USER);
    netlink_route::CacheManager const manager;
    if (manager.getListOfInterfaces().empty()) {
        std::cerr << "show: the kernel's links cannot be read; TRACE_LEVEL=3 tells why\n";
        return 1;
    }
    if (argc < 2) {
        listLinks(manager);
        return 0;
    }
    bool all = true;
    for (std::string const& name : std::vector<std::string>(argv + 1, argv + argc)) {
        all = dumpLink(manager, name) && all;
    }
    return all ? 0 : 1;
}
