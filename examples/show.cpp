// Shows the links of this machine, or goes on and shows what changes; see the help below. It only reads. Installed, its
// name is netlink-route-show.
#include <netlink_route/CacheManager.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <iostream>
#include <map>
#include <string>
#include <syslog.h>
#include <thread>
#include <vector>

namespace {

using Names = std::vector<std::string>;
using Row = std::vector<std::string>;
using Table = std::map<int, Row>; // by the link's index, which stays when the link gets another name

Row const header{"INDEX", "NAME", "STATE", "MTU", "MAC", "IPV4"};
char const* const program = program_invocation_short_name;

constexpr char const* help = R"(
Shows the links of this machine; given names, everything that is known of those links.
With --watch, shows the links, or those of the names, and then what changes, until it is stopped.

It only reads, which needs no privilege. TRACE_LEVEL=9 in the environment shows the library at work, on standard error
and in the system log.
)";

Row describe(netlink_route::Interface const& link)
{
    auto const ips = link.getIps();
    return {std::to_string(link.getIndex()), link.getName(),
            link.isUp() ? "up" : "down",     std::to_string(link.getMtu()),
            link.getMac().getAddress(),      ips.empty() ? "" : ips.front().getAddress()};
}

void printAligned(Table const& table)
{
    std::vector<Row> rows{header};
    for (auto const& [index, row] : table) {
        rows.push_back(row);
    }
    std::vector<std::size_t> widths(header.size());
    for (Row const& row : rows) {
        for (std::size_t column = 0; column < row.size(); ++column) {
            widths[column] = std::max(widths[column], row[column].size());
        }
    }
    for (Row const& row : rows) {
        std::string line;
        for (std::size_t column = 0; column < row.size(); ++column) {
            line += row[column] + std::string(widths[column] - row[column].size() + 2, ' ');
        }
        line.erase(line.find_last_not_of(' ') + 1);
        std::cout << line << '\n';
    }
    std::cout << std::flush;
}

Table readLinks(netlink_route::CacheManager const& manager, Names const& names)
{
    Table table;
    for (std::string const& name : names.empty() ? manager.getListOfInterfaces() : names) {
        auto link = manager.getInterface(name);
        if (link.isAddedToKernel()) { // it may be gone by now
            table[link.getIndex()] = describe(link);
        }
    }
    return table;
}

// The fields that differ, with their old and new values; of a new link, those that it has.
std::string differences(Row const& before, Row const& now)
{
    std::string text;
    for (std::size_t column = 0; column < header.size(); ++column) {
        if (before[column] != now[column]) {
            text += text.empty() ? "" : ", ";
            text += header[column] + ' ' + (before[column].empty() ? "" : before[column] + " -> ");
            text += now[column].empty() ? "none" : now[column];
        }
    }
    return text;
}

void printChanges(Table const& before, Table const& now)
{
    for (auto const& [index, row] : before) {
        if (now.count(index) == 0) {
            std::cout << row[1] << ": gone" << std::endl;
        }
    }
    for (auto const& [index, row] : now) {
        auto const old = before.find(index);
        if (old == before.end()) {
            std::cout << row[1] << ": new, " << differences(Row(header.size()), row) << std::endl;
        } else if (old->second != row) {
            std::cout << row[1] << ": " << differences(old->second, row) << std::endl;
        }
    }
}

[[noreturn]] void watch(netlink_route::CacheManager const& manager, Names const& names)
{
    Table shown = readLinks(manager, names);
    printAligned(shown);
    while (true) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        Table now = readLinks(manager, names);
        printChanges(shown, now);
        shown.swap(now);
    }
}

bool dumpLink(netlink_route::CacheManager const& manager, std::string const& name)
{
    auto link = manager.getInterface(name);
    if (!link.isAddedToKernel()) {
        std::cerr << program << ": there is no link named '" << name << "'\n";
        return false;
    }
    auto const vlan = manager.getVlan(name);
    std::cout << (vlan.getVlanIndex() > 0 ? vlan.toString() : link.toString()) << '\n';
    return true;
}

} // namespace

int main(int argc, char* argv[])
{
    Names names(argv + 1, argv + argc);
    bool const watching = !names.empty() && names.front() == "--watch";
    if (watching) {
        names.erase(names.begin());
    }
    if (!names.empty() && names.front()[0] == '-') {
        bool const isHelp = names.front() == "--help";
        (isHelp ? std::cout : std::cerr) << "usage: " << program << " [--watch] [NAME...]\n"
                                         << (isHelp ? help : "--help tells more.\n");
        return isHelp ? 0 : 2;
    }
    openlog(program, LOG_PERROR, LOG_USER);
    netlink_route::CacheManager const manager;
    if (manager.getListOfInterfaces().empty()) {
        std::cerr << program << ": the kernel's links cannot be read; TRACE_LEVEL=3 tells why\n";
        return 1;
    }
    if (watching) {
        watch(manager, names);
    }
    if (names.empty()) {
        printAligned(readLinks(manager, names));
        return 0;
    }
    bool all = true;
    for (std::string const& name : names) {
        all = dumpLink(manager, name) && all;
    }
    return all ? 0 : 1;
}
