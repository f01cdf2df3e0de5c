// Follows one query through the library: page "Trace what happens".
#include <netlink_route/CacheManager.h>
#include <netlink_route/TraceLevel.h>

#include <iostream>
#include <syslog.h>

using namespace netlink_route;

//! [level]
// Raises the level for a while, for every thread of the process.
class TraceFor {
public:
    explicit TraceFor(int level) { trace::setLevel(level); }
    ~TraceFor() { trace::setLevel(before); }
    TraceFor(TraceFor const&) = delete;
    TraceFor& operator=(TraceFor const&) = delete;

private:
    int before = trace::getLevel();
};
//! [level]

int main()
{
    openlog("trace", LOG_PERROR | LOG_PID, LOG_USER); // the library writes under this identity
    CacheManager const manager;
    {
        TraceFor const everything(9);
        std::cout << "lo is up: " << manager.getInterface("lo").isUp() << std::endl;
    }
    std::cout << "and silent again: " << manager.getInterface("lo").isUp() << std::endl;
    return 0;
}
