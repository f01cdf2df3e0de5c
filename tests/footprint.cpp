// What one CacheManager costs, measured from outside (scripts/test-armhf.sh --footprint): says "started" before it
// constructs the manager, and "running" after; before each step it waits for a line on standard input.
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
