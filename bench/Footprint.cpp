// A program with one CacheManager, or with the same caches over libnl alone, to measure from outside what that costs:
// scripts/test-armhf.sh --footprint, scripts/bench.sh. It says "started" before it makes the caches and "running" after,
// and waits for a line after either.
#ifdef BARE_LIBNL
#include "Bare.h"
#else
#include <CacheManager.h>
#endif

#include <iostream>
#include <string>

namespace {

#ifdef BARE_LIBNL
using Mirror = bench::Bare;
std::size_t linksOf(Mirror& mirror) { return mirror.getNames().size(); }
#else
using Mirror = netlink_route::CacheManager;
std::size_t linksOf(Mirror& mirror) { return mirror.getListOfInterfaces().size(); }
#endif

} // namespace

int main()
{
    std::string line;
    std::cout << "started" << std::endl;
    std::getline(std::cin, line);
    Mirror mirror;
    std::cout << "running" << std::endl;
    std::getline(std::cin, line);
    return linksOf(mirror) == 0 ? 1 : 0;
}
