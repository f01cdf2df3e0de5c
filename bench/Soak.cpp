// Load for as long as SOAK_SECONDS says: four threads query, two update, and `ip` changes links, addresses, routes
// and VLANs without pause. Every few seconds the changes stop for a moment, and the caches must be the kernel's.
// Memory and descriptors must not grow.
#include "Support.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <shared_mutex>
#include <thread>
#include <unistd.h>

namespace netlink_route {
namespace {

using Clock = std::chrono::steady_clock;
using test::ipv4;

class Soak : public test::KernelTest {};

std::atomic<bool> stop{false};
std::atomic<bool> pausing{false};
std::shared_mutex pause; // shared by those who change the kernel, exclusive while the caches are compared
std::atomic<long> queries{0};
std::atomic<long> updates{0};
std::atomic<long> strangers{0};
std::atomic<long> refusals{0};

std::shared_lock<std::shared_mutex> waitForPause()
{
    while (pausing) { // the lock alone would let the changes overtake the comparison for ever
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return std::shared_lock<std::shared_mutex>(pause);
}

// Links that this program makes are called v0, w3, m17 or v0.7.
bool isKnown(std::string const& name)
{
    return name == "lo" || (std::string("vwm").find(name[0]) != std::string::npos && name.size() <= 5);
}

void query(CacheManager const& manager)
{
    for (long i = 0; !stop; ++i) {
        for (std::string const& name : manager.getListOfInterfaces()) {
            strangers += isKnown(name) ? 0 : 1;
            manager.getInterface(name);
            manager.getVlan(name);
        }
        manager.getRoute(ipv4("10.2." + std::to_string(i % 100) + ".0/24"));
        ++queries;
    }
}

void update(CacheManager& manager, std::string const& name)
{
    for (unsigned int i = 0; !stop; ++i) {
        const auto running = waitForPause();
        Interface wanted(name);
        wanted.setMtu(1280 + i % 200);
        wanted.setUp();
        wanted.addIp(ipv4("10.0." + std::to_string(i % 250) + (name == "v0" ? ".1/24" : ".2/24")), true);
        refusals += manager.update(wanted, -1) ? 0 : 1;
        ++updates;
    }
}

void storm()
{
    const bool vlans =
        test::output("ip link add link v0 name v0.7 type vlan id 7 2>/dev/null && echo yes || true") == "yes\n";
    const std::string vlan = vlans ? "link delete v0.7\nlink add link v0 name v0.7 type vlan id 7\n"
                                     "link set v0.7 up\naddress add 10.7.0.1/24 dev v0.7\n"
                                   : "";
    for (long i = 0; !stop; ++i) {
        const auto running = waitForPause();
        const std::string number = std::to_string(i % 50);
        const std::string link = "m" + number;
        const std::string batch =
            vlan + "link add link w1 name " + link + " type macvlan\nlink set " + link + " up\naddress add 10.1." +
            number + ".1/24 dev " + link + "\nroute add 10.2." + number + ".0/24 via 10.1." + number + ".2\nlink set " +
            link + " mtu 1300\naddress delete 10.1." + number + ".1/24 dev " + link + "\naddress add 10.1." + number +
            ".1/24 dev " + link + "\nroute add 10.2." + std::to_string(i % 100) + ".0/24 via 10.1." + number +
            ".2\nlink set " + link + " down\nlink set " + link + " up\nlink delete m" + std::to_string((i * 7) % 50) +
            "\n";
        test::run("printf '" + batch + "' | ip -force -batch - 2>/dev/null || true");
    }
}

TEST_F(Soak, StaysTrueAndSmall)
{
    const char* const text = std::getenv("SOAK_SECONDS");
    const std::chrono::seconds length(text != nullptr ? std::atol(text) : 60);
    test::run("ip link add w0 type veth peer name w1; for i in v0 v1 w0 w1; do ip link set $i up; done");
    CacheManager manager;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back(query, std::cref(manager));
    }
    threads.emplace_back(update, std::ref(manager), "v0");
    threads.emplace_back(update, std::ref(manager), "w0");
    threads.emplace_back(storm);

    const auto start = Clock::now();
    const auto warm = start + std::min<std::chrono::seconds>(std::chrono::seconds(60), length / 2);
    long memory = 0;
    std::ptrdiff_t descriptors = 0;
    while (Clock::now() < start + length) {
        std::this_thread::sleep_for(std::chrono::seconds(3));
        pausing = true;
        const std::unique_lock<std::shared_mutex> paused(pause);
        const auto same = test::mirrorsKernel(manager);
        EXPECT_TRUE(same);
        if (memory == 0 && Clock::now() > warm) {
            memory = test::residentKiB();
            descriptors = test::openDescriptors();
        }
        std::printf(
            "%4lld s: %s, %ld rounds of queries, %ld updates, %ld KiB, %td descriptors\n",
            static_cast<long long>(std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start).count()),
            same ? "true to the kernel" : "DIFFERENT", queries.load(), updates.load(), test::residentKiB(),
            test::openDescriptors());
        std::fflush(stdout);
        pausing = false;
    }
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(0, strangers);
    EXPECT_EQ(0, refusals);
    EXPECT_LT(test::residentKiB(), memory + memory / 100);
    EXPECT_EQ(descriptors, test::openDescriptors());
}

} // namespace
} // namespace netlink_route

int main(int argc, char** argv)
{
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
