#include "Kernel.h"

#include "NetworkNamespace.h"

#include <cstdlib>
#include <fcntl.h>
#include <map>
#include <stdexcept>
#include <utility>

namespace bench {

void run(std::string const& command)
{
    if (std::system(command.c_str()) != 0) {
        throw std::runtime_error("failed: " + command);
    }
}

void enterNew()
{
    if (!test::enterNewNetwork()) {
        throw std::runtime_error("this user may make neither network nor user namespaces");
    }
    run("ip link add p type veth peer name q");
}

void enter(Make make, long count)
{
    static std::map<std::pair<Make, long>, int> descriptors;
    auto const [entry, isNew] = descriptors.insert({{make, count}, -1});
    if (!isNew) {
        setns(entry->second, CLONE_NEWNET);
        return;
    }
    enterNew();
    entry->second = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    make(count);
}

void makeLinks(long count)
{
    run("for i in $(seq " + std::to_string(count) +
        "); do echo link add link p name m$i type macvlan; "
        "echo address add 10.$((i / 250)).$((i % 250)).1/24 dev m$i; done | ip -batch -");
}

void makeRoutes(long count)
{
    run("ip address add 10.0.0.1/24 dev p; ip link set p up; for i in $(seq 0 " + std::to_string(count - 1) +
        "); do echo route add $((20 + i / 62500)).$((i / 250 % 250)).$((i % 250)).0/24 via 10.0.0.2; done | ip -batch "
        "-");
}

std::string linkName(long i) { return "m" + std::to_string(i + 1); }

std::string routeText(long i)
{
    return std::to_string(20 + i / 62500) + "." + std::to_string(i / 250 % 250) + "." + std::to_string(i % 250) +
           ".0/24";
}

} // namespace bench
