// A program whose memory runs out for a moment, at each of the first places in turn where the event thread and the
// constructor ask for some: nothing may end it, and the caches must be right again. It works in a network namespace of
// its own. It is no part of the other tests, since the sanitizers and valgrind need malloc for themselves.
#include <CacheManager.h>
#include <TraceLevel.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <netlink/cache.h>
#include <sched.h>
#include <string>
#include <syslog.h>
#include <thread>

extern "C" {
void* __libc_malloc(std::size_t size);                    // NOLINT
void* __libc_calloc(std::size_t count, std::size_t size); // NOLINT
void* __libc_realloc(void* memory, std::size_t size);     // NOLINT
}

namespace {

std::atomic<int> untilFailure{0}; // allocations, of the thread that is meant; 0: none fails
std::atomic<bool> mainIsMeant{false};
thread_local bool isMain = false;
std::atomic<int> linesLogged{0};

bool failsNow()
{
    if (untilFailure == 0 || isMain != mainIsMeant) {
        return false;
    }
    return --untilFailure == 0;
}

void run(std::string const& command)
{
    if (std::system(command.c_str()) != 0) {
        std::printf("failed: %s\n", command.c_str());
        std::exit(1);
    }
}

template <typename Condition>
bool eventually(Condition condition)
{
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Whether the manager follows one change of each kind.
bool follows(netlink_route::CacheManager const& manager, int number, int failingAllocation)
{
    std::string const mtu = std::to_string(1300 + number % 100);
    std::string const net = "10." + std::to_string(number) + ".";
    netlink_route::Address const destination(net + "9.0/24", netlink_route::Address::IPV4);
    int const index = manager.getInterface("v0").getIndex();
    mainIsMeant = false;
    untilFailure = failingAllocation;
    run("printf 'link set v0 mtu " + mtu + "\nlink add x0 type veth peer name x1\naddress add " + net +
        "1.1/24 dev v0\nroute add " + net + "9.0/24 via " + net + "1.2\nlink delete x0\n' | ip -batch -");
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    untilFailure = 0;
    run("ip link set v1 mtu " + mtu);
    bool const made = eventually([&] {
        return manager.getInterface("v0").getMtu() == 1300U + static_cast<unsigned int>(number % 100) &&
               manager.getInterface("v1").getMtu() == manager.getInterface("v0").getMtu() &&
               manager.getListOfInterfaces().size() == 3 && manager.getRoute(destination).isAddedToKernel() &&
               manager.getIps(index).size() == 1;
    });
    run("ip address flush dev v0");
    return made && eventually([&] {
               return !manager.getRoute(destination).isAddedToKernel() && manager.getIps(index).empty();
           });
}

} // namespace

extern "C" {
void syslog(int /*priority*/, char const* /*format*/, ...) { ++linesLogged; } // NOLINT

// libnl 3.7 itself crashes when its calloc fails in here, while it frees the half-made manager.
int nl_cache_mngr_alloc(nl_sock* socket, int protocol, int flags, nl_cache_mngr** result)
{
    int const left = untilFailure.exchange(0);
    auto* const original = reinterpret_cast<decltype(&nl_cache_mngr_alloc)>(dlsym(RTLD_NEXT, "nl_cache_mngr_alloc"));
    int const error = original(socket, protocol, flags, result);
    untilFailure = left;
    return error;
}

void* malloc(std::size_t size) { return failsNow() ? nullptr : __libc_malloc(size); }
void* calloc(std::size_t count, std::size_t size) { return failsNow() ? nullptr : __libc_calloc(count, size); }
void* realloc(void* memory, std::size_t size) { return failsNow() ? nullptr : __libc_realloc(memory, size); }
}

int main()
{
    isMain = true;
    trace::setLevel(3);
    if (unshare(CLONE_NEWNET) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
        std::puts("this needs the right to make a network namespace");
        return 1;
    }
    run("ip link add v0 type veth peer name v1; ip link set v0 up; ip link set v1 up");
    constexpr int places = 200;
    int wrong = 0;
    {
        netlink_route::CacheManager const manager;
        for (int place = 1; place <= places; ++place) {
            if (!follows(manager, place, place)) {
                std::printf("the event thread did not recover from failed allocation %d\n", place);
                ++wrong;
            }
        }
    }
    for (int place = 1; place <= places; ++place) {
        mainIsMeant = true;
        linesLogged = 0;
        untilFailure = place;
        netlink_route::CacheManager const manager;
        untilFailure = 0;
        if (linesLogged == 0 && !follows(manager, place, 0)) { // a cache that could not be filled is logged, and empty
            std::printf("the constructor left a wrong manager after failed allocation %d\n", place);
            ++wrong;
        }
    }
    std::printf("%d failed allocations, %d of them with lasting harm\n", 2 * places, wrong);
    return wrong == 0 ? 0 : 1;
}
