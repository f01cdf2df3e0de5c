#include "KernelReader.h"

#include "KernelNumbers.h"
#include "Memory.h"

#include <array>
#include <cstring>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <netlink/errno.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>
#include <utility>

namespace netlink_route {

// What libnl hands over while it receives. A message that libnl cannot parse, such as a route with an encapsulation that
// it does not know, is left out.
struct KernelReader::Answer {
    std::atomic<bool> const& stop;
    Objects objects{};
    std::size_t messages = 0;
    int result = 0; // libnl's, of keeping the objects

    static int keepMessage(nl_msg* message, void* argument)
    {
        auto& answer = *static_cast<Answer*>(argument);
        ++answer.messages;
        int const parsed = nl_msg_parse(message, keepObject, argument);
        if (parsed < 0 && parsed != -NLE_MSGTYPE_NOSUPPORT) {
            answer.result = parsed;
        }
        if (answer.stop) {
            answer.result = -NLE_INTR;
        }
        return answer.result == 0 ? NL_OK : NL_STOP;
    }

    static void keepObject(nl_object* object, void* argument)
    {
        auto& answer = *static_cast<Answer*>(argument);
        if (isException(object)) {
            return;
        }
        nl_object_get(object);
        ObjectPtr owner(object);
        if (!fitsInMemory([&] { answer.objects.push_back(std::move(owner)); })) {
            answer.result = -NLE_NOMEM;
        }
    }

    static bool isException(nl_object* object)
    {
        return std::strcmp(nl_object_get_type(object), "route/route") == 0 &&
               (rtnl_route_get_flags(reinterpret_cast<rtnl_route*>(object)) & RTM_F_CLONED) != 0;
    }
};

int KernelReader::open()
{
    socket.reset(nl_socket_alloc());
    if (socket == nullptr) {
        return -NLE_NOMEM;
    }
    nl_socket_disable_auto_ack(socket.get()); // one answer for one request
    int const result = nl_connect(socket.get(), NETLINK_ROUTE);
    if (result < 0) {
        socket.reset();
        return result;
    }
    int const descriptor = nl_socket_get_fd(socket.get());
    int const on = 1;
    strict = setsockopt(descriptor, SOL_NETLINK, strictCheck, &on, sizeof on) == 0;
    timeval const longest{0, 100000}; // in case the answer never comes
    setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &longest, sizeof longest);
    return 0;
}

// Returns libnl's result. An unknown link (-NLE_NODEV) is a complete answer. After any other failure the rest of the
// answer may still arrive, so the next request opens another socket.
int KernelReader::request(int type, int flags, void* body, std::size_t size, Answer& answer)
{
    if (stop) {
        return -NLE_INTR;
    }
    int result = socket != nullptr ? 0 : open();
    if (result < 0) {
        return result;
    }
    nl_socket_modify_cb(socket.get(), NL_CB_VALID, NL_CB_CUSTOM, Answer::keepMessage, &answer);
    result = nl_send_simple(socket.get(), type, flags, body, size);
    if (result >= 0) {
        result = nl_recvmsgs_default(socket.get());
    }
    if (answer.result < 0) {
        result = answer.result;
    }
    if (result < 0 && result != -NLE_NODEV) {
        socket.reset();
    }
    return result;
}

std::optional<Objects> KernelReader::dump(int type, void* body, std::size_t size)
{
    Answer answer{stop};
    int const result = request(type, NLM_F_DUMP, body, size, answer);
    if (result < 0 && result != -NLE_NODEV) {
        return std::nullopt;
    }
    return std::move(answer.objects);
}

std::optional<Objects> KernelReader::readLinks()
{
    ifinfomsg body{};
    return dump(RTM_GETLINK, &body, sizeof body);
}

std::optional<Objects> KernelReader::readIpv4Addresses()
{
    ifaddrmsg body{};
    body.ifa_family = AF_INET;
    return dump(RTM_GETADDR, &body, sizeof body);
}

std::optional<Objects> KernelReader::readRoutes()
{
    rtmsg body{};
    body.rtm_family = AF_INET;
    return dump(RTM_GETROUTE, &body, sizeof body);
}

std::optional<Objects> KernelReader::readRoutesOf(int link)
{
    struct {
        rtmsg header{};
        rtattr attribute{RTA_LENGTH(sizeof(int)), RTA_OIF};
        int index = 0;
    } body;
    body.header.rtm_family = AF_INET;
    body.index = link;
    bool const canChoose = (socket != nullptr || open() == 0) && strict;
    return canChoose ? dump(RTM_GETROUTE, &body, sizeof body) : std::nullopt;
}

// libnl has no objects for them, so the messages are counted.
bool KernelReader::mayHaveNexthopObjects()
{
    std::array<char, 8> body{}; // struct nhmsg, all zero: any
    Answer answer{stop};
    int const result = request(getNexthop, NLM_F_DUMP, body.data(), body.size(), answer);
    bool const failed = result < 0 && result != -NLE_OPNOTSUPP; // before Linux 5.3 there are none
    return answer.messages > 0 || failed;
}

bool KernelReader::waitForKernel()
{
    ifinfomsg body{};
    body.ifi_index = 1; // lo: answered under the kernel's lock for all changes of its configuration
    Answer answer{stop};
    return request(RTM_GETLINK, 0, &body, sizeof body, answer) >= 0;
}

void KernelReader::abandon()
{
    if (socket != nullptr) {
        close(nl_socket_get_fd(socket.get()));
    }
}

} // namespace netlink_route
