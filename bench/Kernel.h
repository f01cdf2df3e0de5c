// The kernel that the benchmarks measure on: network namespaces of their own, with as many objects as they ask for.
#pragma once

#include <string>

namespace bench {

// Runs a shell command, and throws when it fails.
void run(std::string const& command);

// Puts the calling thread, and what it opens from then on, into a new namespace with a cable p-q.
void enterNew();

// Puts the calling thread, and what it opens from then on, into the namespace with that many objects, which is made when
// it is asked for first, and kept. Two makers never share one.
using Make = void (*)(long count);
void enter(Make make, long count);

// Makers. A cable p-q and that many further links m1, m2, ... on it, each with one IPv4 address.
void makeLinks(long count);

// The same cable with an address on p, up, and that many routes over it.
void makeRoutes(long count);

std::string linkName(long i);  // from 0
std::string routeText(long i); // from 0, with the prefix length

// Keys from all over a table, in an order without locality.
class Keys {
public:
    explicit Keys(long howMany) : count(howMany) {}
    long next() { return position = (position + 7919) % count; }

private:
    long count;
    long position = 0;
};

} // namespace bench
