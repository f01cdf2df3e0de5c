// A network namespace for a program that wants a kernel's network to itself.
#pragma once

#include <fstream>
#include <sched.h>
#include <string>
#include <unistd.h>

namespace test {

// Enters a new one. An ordinary user first becomes root in a user namespace, where the kernel allows that to a program
// that has no other thread yet. False when that failed.
inline bool enterNewNetwork()
{
    if (unshare(CLONE_NEWNET) == 0) {
        return true;
    }
    std::string const user = std::to_string(getuid());
    std::string const group = std::to_string(getgid());
    if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
        return false;
    }
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/gid_map") << "0 " + group + " 1";
    std::ofstream("/proc/self/uid_map") << "0 " + user + " 1";
    return getuid() == 0;
}

} // namespace test
