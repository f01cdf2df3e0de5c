// Reads from the kernel what is dirty, and makes the caches equal to it.
#pragma once

#include "CacheSync.h"
#include "DirtyTables.h"
#include "KernelReader.h"

#include <atomic>
#include <optional>
#include <vector>

namespace netlink_route {

class EventSocket;

// The caches of a manager. Those that it does not have are null.
struct Caches {
    nl_cache* link = nullptr;
    nl_cache* route = nullptr;
    nl_cache* addr = nullptr;
};

// Carries out what DirtyTables says: each reading takes its cause from there, and notes it again if it fails.
//
// Used by the event thread alone, and before it by the constructor. Takes mutex_man while it changes a cache, for small
// slices of the changes; and not in the constructor, whose caches nobody else knows.
class TableRepair {
public:
    TableRepair(Caches const& toRepair, DirtyTables& tables, EventSocket const& socket, std::atomic<bool> const& toStop)
        : caches(toRepair), dirty(tables), events(socket), stop(toStop), reader(toStop)
    {
    }

    // Opens the socket of the readings, and asks the kernel something: where no request can be sent, libnl would wait for
    // the answer for ever while it fills the cache of the links. Returns libnl's result.
    int open();

    // From now on others use the caches, too: they are locked for each slice.
    void share() { shared = true; }

    // Reads what is dirty, if it is time for that.
    void readWhatIsDue();

    // In the child of a fork: closes the descriptor.
    void abandon() { reader.abandon(); }

private:
    bool readTables();
    bool readLinks();
    bool readAddresses();
    bool readRoutes();
    bool hasBeenOvertaken();

    // The routes that may have gone with their links or addresses.
    struct Suspects {
        std::vector<nl_object*> routes; // of the cache
        NumberSet<int> links;           // that their hops use
        bool needAll = false;           // to ask for these routes alone is not possible, or not enough
    };
    bool readRoutesOfCauses();
    bool putOff(DirtyTables::Causes const& causes, int times);
    Suspects findSuspects(DirtyTables::Causes const& causes);
    std::optional<Objects> readRoutesOf(NumberSet<int> const& links);
    Slices slices() const { return {stop, shared}; }

    Caches const& caches;
    DirtyTables& dirty;
    EventSocket const& events;
    std::atomic<bool> const& stop;
    KernelReader reader;
    bool shared = false;
    int timesPutOff = 0; // in a row: the reading of the routes of some links
};

} // namespace netlink_route
