// Memory runs out for a moment, at each of the first places in turn where the event thread and the constructor ask for
// some: nothing may end the program, and the caches must be right again. This is a program of its own, since the
// sanitizers and valgrind need malloc for themselves.
#include "Faults.h"
#include "Support.h"

#include <cstdlib>
#include <netlink/cache.h>
#include <unistd.h>

namespace {

std::atomic<int> untilFailure{0}; // allocations, of the thread that is meant; 0: none fails
std::atomic<bool> mainIsMeant{false};

bool failsNow() { return untilFailure != 0 && (gettid() == getpid()) == mainIsMeant && --untilFailure == 0; }

} // namespace

extern "C" {
// libnl 3.7 itself crashes when its calloc fails in here, while it frees the half-made manager.
int nl_cache_mngr_alloc(nl_sock* socket, int protocol, int flags, nl_cache_mngr** result)
{
    int const left = untilFailure.exchange(0);
    int const error = test::next<decltype(nl_cache_mngr_alloc)>("nl_cache_mngr_alloc")(socket, protocol, flags, result);
    untilFailure = left;
    return error;
}

void* malloc(std::size_t size) { return failsNow() ? nullptr : test::next<decltype(malloc)>("malloc")(size); }
void* calloc(std::size_t count, std::size_t size)
{
    return failsNow() ? nullptr : test::next<decltype(calloc)>("calloc")(count, size);
}
void* realloc(void* memory, std::size_t size)
{
    return failsNow() ? nullptr : test::next<decltype(realloc)>("realloc")(memory, size);
}
}

namespace {

using netlink_route::CacheManager;
constexpr int places = 200;

class OutOfMemory : public test::KernelTest {};

// Whether the manager follows one change of each kind.
testing::AssertionResult follows(CacheManager const& manager, int number, int failingAllocation)
{
    std::string const mtu = std::to_string(1300 + number % 100);
    std::string const net = "10." + std::to_string(number) + ".";
    mainIsMeant = false;
    untilFailure = failingAllocation;
    test::run("printf 'link set v0 up mtu " + mtu + "\nlink add x0 type veth peer name x1\naddress add " + net +
              "1.1/24 dev v0\nroute add " + net + "9.0/24 via " + net + "1.2\nlink delete x0\n' | ip -batch -");
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    untilFailure = 0;
    test::run("ip link set v1 up mtu " + mtu);
    auto const made = test::mirrorsKernel(manager, std::chrono::seconds(2));
    test::run("ip address flush dev v0");
    return made ? test::mirrorsKernel(manager, std::chrono::seconds(2)) : made;
}

TEST_F(OutOfMemory, EventThreadRecovers)
{
    CacheManager const manager;
    for (int place = 1; place <= places; ++place) {
        EXPECT_TRUE(follows(manager, place, place)) << place;
    }
}

TEST_F(OutOfMemory, ConstructorLeavesAManagerThatIsRightOrSaysWhyNot)
{
    for (int place = 1; place <= places; ++place) {
        test::TraceLevel const scope(3);
        mainIsMeant = true;
        untilFailure = place;
        CacheManager const manager;
        untilFailure = 0;
        EXPECT_TRUE(!test::takeLog().empty() || follows(manager, place, 0)) << place;
    }
}

} // namespace
