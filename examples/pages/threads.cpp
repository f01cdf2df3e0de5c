// One manager, several threads: page "Use several threads".
#include <netlink_route/CacheManager.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace netlink_route;

namespace {

//! [signals]
// The event thread inherits what is blocked here, so that no handler of the program runs there.
std::unique_ptr<CacheManager> makeManager()
{
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    auto manager = std::make_unique<CacheManager>();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return manager;
}
//! [signals]

} // namespace

int main()
{
    auto const manager = makeManager(); // one for the process, in the network namespace of this thread

    //! [threads]
    std::atomic<bool> stop{false};
    std::atomic<long> queries{0};
    std::vector<std::thread> readers;
    readers.reserve(4);
    for (int i = 0; i < 4; ++i) {
        readers.emplace_back([&] {
            while (!stop) {
                for (std::string const& name : manager->getListOfInterfaces()) {
                    Interface const link = manager->getInterface(name); // a copy, this thread's own
                    queries += link.getIndex() != 0 ? 1 : 0;
                }
            }
        });
    }
    std::this_thread::sleep_for(std::chrono::seconds(1));
    stop = true;
    for (std::thread& reader : readers) {
        reader.join(); // before the manager is destroyed
    }
    //! [threads]
    std::cout << queries << " queries in a second" << std::endl;
    return 0;
}
