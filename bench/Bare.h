// The work of the library's queries, and of its start, written directly over libnl, as a program does that has no such
// library: caches that libnl keeps current on a thread, one mutex, and plain strings and numbers.
#pragma once

#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct nl_cache;
struct nl_cache_mngr;
struct nl_sock;

namespace bench {

class Bare {
public:
    struct Link {
        std::string name, mac, broadcast, alias, queueingDiscipline;
        int index = 0, vlanId = 0;
        unsigned int group = 0, mtu = 0, txQueueLength = 0, arpType = 0, promiscuity = 0, txQueues = 0, rxQueues = 0;
        bool dormant = false, up = false;
        std::vector<std::string> ips;
    };

    struct Route {
        std::string destination, source, preferred, gateway;
        int scope = 0, protocol = 0, tos = 0, family = 0, type = 0;
        unsigned int table = 0, priority = 0;
        std::vector<std::string> hops;
    };

    Bare();
    ~Bare();
    Bare(Bare const&) = delete;
    Bare& operator=(Bare const&) = delete;

    std::vector<std::string> getIps(int index);
    Link getLink(std::string const& name);
    Link getVlan(std::string const& name);
    std::vector<std::string> getNames();
    Route getRoute(std::string const& destination);

    // Changes the MTU of the link, replaces its address, and waits until the caches show both.
    bool update(std::string const& name, unsigned int mtu, std::string const& address);

private:
    Link readLink(std::string const& name, bool asVlan);
    std::vector<std::string> findIps(int index);
    void follow();

    std::mutex mutex;
    nl_cache_mngr* manager = nullptr;
    nl_cache* links = nullptr;
    nl_cache* routes = nullptr;
    nl_cache* addresses = nullptr;
    nl_sock* requests = nullptr;
    int wake = -1; // ends the thread
    std::thread thread;
};

} // namespace bench
