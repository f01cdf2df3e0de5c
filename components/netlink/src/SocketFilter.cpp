#include "SocketFilter.h"

#include "KernelNumbers.h"

#include <arpa/inet.h>
#include <array>
#include <cstddef>
#include <initializer_list>
#include <linux/filter.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

namespace netlink_route {

namespace {

// A classic BPF program, built in the order in which it runs: it loads a number, and compares it. BPF loads numbers in
// network order, but netlink has them in the host's, so the constants are swapped (see loaded).
class Program {
public:
    void loadType() { add(BPF_LD | BPF_H | BPF_ABS, offsetof(nlmsghdr, nlmsg_type)); }

    // The family is the first byte behind the header, in all messages for which it is loaded.
    void loadFamily() { add(BPF_LD | BPF_B | BPF_ABS, NLMSG_HDRLEN); }

    // Loads the offset of that attribute in a message about a link, 0 if there is none.
    void loadLinkAttribute(unsigned int type)
    {
        add(BPF_LD | BPF_IMM, NLMSG_HDRLEN + sizeof(ifinfomsg)); // where the attributes begin
        add(BPF_LDX | BPF_IMM, type);
        add(BPF_LD | BPF_W | BPF_ABS, static_cast<unsigned int>(SKF_AD_OFF + SKF_AD_NLATTR));
    }

    // The instructions that the block adds are skipped unless the loaded number is that value.
    template <typename Block>
    void onlyFor(unsigned int value, Block block)
    {
        std::size_t const jump = size;
        add(BPF_JMP | BPF_JEQ | BPF_K, value);
        block();
        code[jump].jf = static_cast<unsigned char>(size - jump - 1);
    }

    void keep() { add(BPF_RET | BPF_K, ~0U); }
    void drop() { add(BPF_RET | BPF_K, 0); }

    void attach(int descriptor)
    {
        sock_fprog const program{static_cast<unsigned short>(size), code.data()};
        setsockopt(descriptor, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program);
    }

private:
    void add(int operation, unsigned int operand)
    {
        code[size++] = BPF_STMT(static_cast<unsigned short>(operation), operand);
    }

    std::array<sock_filter, 64> code{}; // enough for the one program
    std::size_t size = 0;
};

// A message type as the filter loads it: in network order.
unsigned int loaded(unsigned short type) { return htons(type); }

} // namespace

namespace {

// Leaves the type loaded for what follows.
void keepNotices(Program& program)
{
    program.loadType();
    for (unsigned short const type : {static_cast<unsigned short>(RTM_NEWQDISC),
                                      static_cast<unsigned short>(RTM_DELQDISC), newNexthop, delNexthop}) {
        program.onlyFor(loaded(type), [&] { program.keep(); });
    }
}

} // namespace

void attachNoticesFilter(int descriptor)
{
    Program program;
    keepNotices(program);
    program.drop();
    program.attach(descriptor);
}

void attachEventFilter(int descriptor)
{
    Program program;
    keepNotices(program);
    program.onlyFor(loaded(RTM_NEWLINK), [&] {
        program.loadLinkAttribute(IFLA_WIRELESS);
        program.onlyFor(0, [&] { program.loadType(); });
    });
    for (unsigned short const type : {RTM_NEWLINK, RTM_DELLINK, RTM_NEWADDR, RTM_DELADDR, RTM_NEWROUTE, RTM_DELROUTE}) {
        program.onlyFor(loaded(type), [&] {
            program.loadFamily();
            program.onlyFor(AF_UNSPEC, [&] { program.keep(); });
            program.onlyFor(AF_INET, [&] { program.keep(); });
            program.drop();
        });
    }
    program.drop();
    program.attach(descriptor);
}

} // namespace netlink_route
