// A program with one CacheManager, to measure from outside what it costs: scripts/test-armhf.sh --footprint.
// It says "started" before it constructs the manager and "running" after, and waits for a line after either.
#include <CacheManager.h>

#include <iostream>
#include <string>

int main()
{
    std::string line;
    std::cout << "started" << std::endl;
    std::getline(std::cin, line);
    const netlink_route::CacheManager manager;
    std::cout << "running" << std::endl;
    std::getline(std::cin, line);
    return manager.getListOfInterfaces().empty() ? 1 : 0;
}
