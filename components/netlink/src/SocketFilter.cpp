#include "SocketFilter.h"

#include "KernelNumbers.h"

#include <arpa/inet.h>
#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <linux/filter.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

namespace netlink_route {

namespace {

// A message type as the filter loads it: BPF loads numbers in network order, but netlink has them in the host's.
unsigned int loaded(unsigned int type) { return htons(static_cast<std::uint16_t>(type)); }

// A classic BPF program, built in the order in which it runs: it loads a number, and compares it. The kernel compiles it
// for each socket, which takes 1.5 us for each instruction, so that a short one starts faster.
class Program {
public:
    // Loads the type as that of the message which says "new".
    void loadType()
    {
        add(BPF_LD | BPF_H | BPF_ABS, offsetof(nlmsghdr, nlmsg_type));
        add(BPF_ALU | BPF_AND | BPF_K, loaded(newOrDeleted));
    }

    // The family is the first byte behind the header, in all messages for which it is loaded.
    void loadFamily() { add(BPF_LD | BPF_B | BPF_ABS, NLMSG_HDRLEN); }

    // Loads the offset of that attribute in a message about a link, 0 if there is none.
    void loadLinkAttribute(unsigned int type)
    {
        add(BPF_LD | BPF_IMM, NLMSG_HDRLEN + sizeof(ifinfomsg)); // where the attributes begin
        add(BPF_LDX | BPF_IMM, type);
        add(BPF_LD | BPF_W | BPF_ABS, static_cast<unsigned int>(SKF_AD_OFF + SKF_AD_NLATTR));
    }

    // The instructions that the block adds are skipped unless the loaded number is one of those.
    template <typename Block>
    void onlyFor(std::initializer_list<unsigned int> values, Block block)
    {
        std::size_t const begin = size + values.size();
        for (unsigned int const value : values) {
            add(BPF_JMP | BPF_JEQ | BPF_K, value);
            code[size - 1].jt = static_cast<unsigned char>(begin - size);
        }
        block();
        code[begin - 1].jf = static_cast<unsigned char>(size - begin);
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

    std::array<sock_filter, 32> code{}; // enough for the one program
    std::size_t size = 0;
};

// Leaves the type loaded for what follows.
void keepNotices(Program& program)
{
    program.loadType();
    program.onlyFor({loaded(RTM_NEWQDISC), loaded(newNexthop)}, [&] { program.keep(); });
}

} // namespace

void attachNoticeFilter(int descriptor)
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
    program.onlyFor({loaded(RTM_NEWLINK)}, [&] {
        program.loadLinkAttribute(IFLA_WIRELESS);
        program.onlyFor({0}, [&] { program.loadType(); });
    });
    program.onlyFor({loaded(RTM_NEWLINK), loaded(RTM_NEWADDR), loaded(RTM_NEWROUTE)}, [&] {
        program.loadFamily();
        program.onlyFor({AF_UNSPEC, AF_INET}, [&] { program.keep(); });
    });
    program.drop();
    program.attach(descriptor);
}

} // namespace netlink_route
