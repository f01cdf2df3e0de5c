// Configures a link, and tries a VLAN and a route on it; see the help below. Installed, its name is
// netlink-route-configure.
#include <netlink_route/CacheManager.h>

#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <string>
#include <syslog.h>

namespace {

using netlink_route::Address;
using netlink_route::CacheManager;
using netlink_route::Interface;
using netlink_route::Route;
using netlink_route::Vlan;

constexpr int seconds = 5; // how long an update may take to show
char const* const program = program_invocation_short_name;

constexpr char const* help = R"(
Configures a link: its MTU, 1400, and its IPv4 address in one update, a VLAN on it, and a route through it. Then it
removes the VLAN and the route again, and leaves the link as configured. GATEWAY must lie in the network of the address.

It changes this machine's links, which needs CAP_NET_ADMIN; --yes says that you want that. The link's present address
goes, and with it the routes through it. A shell command in the environment variable CONFIGURE_WATCH is run after each
step, such as CONFIGURE_WATCH='ip address'. TRACE_LEVEL=3 tells why a step fails, on standard error and in the system
log.
)";

// Whether the library takes it. Another text would take away the address that the link has.
bool isAddress(std::string const& text)
{
    auto const slash = text.find('/');
    std::string const digits = text.substr(slash + 1);
    auto const length = std::strtoul(digits.c_str(), nullptr, 10);
    in_addr bytes{};
    return inet_pton(AF_INET, text.substr(0, slash).c_str(), &bytes) == 1 && length <= 32 &&
           digits == std::to_string(length);
}

bool done(bool success, std::string const& step)
{
    if (!success) {
        std::cerr << program << ": " << step << " failed or did not show in time; TRACE_LEVEL=3 tells why\n";
        return false;
    }
    std::cout << "== " << step << ": done" << std::endl;
    char const* const watch = std::getenv("CONFIGURE_WATCH");
    if (watch != nullptr && std::system(watch) != 0) {
        std::cerr << program << ": CONFIGURE_WATCH failed\n";
        return false;
    }
    return true;
}

bool configureLink(CacheManager& manager, std::string const& name, Address const& address)
{
    Interface wanted(name);
    wanted.setMtu(1400);
    wanted.setUp();
    wanted.addIp(address, true);
    if (!done(manager.update(wanted, seconds), "MTU and address of " + name)) {
        return false;
    }
    std::cout << manager.getInterface(name).toString() << '\n';
    return true;
}

bool tryVlan(CacheManager& manager, std::string const& parent)
{
    Vlan wanted(parent + ".100");
    wanted.setUp();
    wanted.addIp(Address("192.0.2.1/24", Address::IPV4), true);
    if (!done(manager.update(wanted, seconds), "VLAN " + wanted.getName())) {
        return false;
    }
    std::cout << manager.getVlan(wanted.getName()).toString() << '\n';
    return done(manager.remove(wanted), "removal of " + wanted.getName());
}

bool tryRoute(CacheManager& manager, std::string const& gateway)
{
    Address const network("198.51.100.0/24", Address::IPV4);
    Route wanted("example");
    wanted.setDestination(network);
    wanted.setGateway(Address(gateway + "/32", Address::IPV4));
    // What the update did is seen by the query after it.
    bool const success = manager.update(wanted, seconds) && manager.getRoute(network).isAddedToKernel();
    if (!done(success, "route to " + network.getAddress())) {
        return false;
    }
    std::cout << manager.getRoute(network).toString() << '\n';
    return done(manager.remove(wanted), "removal of the route");
}

} // namespace

int main(int argc, char* argv[])
{
    openlog(program, LOG_PERROR, LOG_USER);
    bool const isHelp = argc == 2 && std::string(argv[1]) == "--help";
    if (isHelp || argc != 5 || std::string(argv[1]) != "--yes") {
        (isHelp ? std::cout : std::cerr) << "usage: " << program << " --yes LINK ADDRESS/LENGTH GATEWAY\n"
                                         << (isHelp ? help
                                                    : "It changes this machine's links; --yes says that you want "
                                                      "that. --help tells more.\n");
        return isHelp ? 0 : 2;
    }
    std::string const name = argv[2];
    if (!isAddress(argv[3])) {
        std::cerr << program << ": '" << argv[3] << "' is no address with its prefix length, as 192.168.1.10/24 is\n";
        return 2;
    }
    CacheManager manager;
    if (!manager.getInterface(name).isAddedToKernel()) {
        std::cerr << program << ": there is no link named '" << name << "'\n";
        return 1;
    }
    bool const success = configureLink(manager, name, Address(argv[3], Address::IPV4)) && tryVlan(manager, name) &&
                         tryRoute(manager, argv[4]);
    return success ? 0 : 1;
}
