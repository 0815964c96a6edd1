// SPDX-License-Identifier: MIT
// What a machine without a bus says. The system's calls are stood in for; tests/kernel has the real ones.
#include "glue/jin/JIN_socket_stack.h"
#include "jin/Test_bus.h"
#include "support/test.h"
#include <linux/can.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/syscall.h>

namespace {
std::atomic<int> socket_error{0}, bind_error{0}, attempts{0};
std::atomic<unsigned> interface_index{1};
} // namespace

// A descriptor that nothing arrives at stands for a socket of the bus.
extern "C" KAV_API int socket(int domain, int type, int protocol) noexcept {
    if (domain != AF_CAN) return static_cast<int>(syscall(SYS_socket, domain, type, protocol));
    ++attempts;
    if (socket_error) return errno = socket_error, -1;
    return static_cast<int>(syscall(SYS_socket, AF_UNIX, type, 0));
}
extern "C" KAV_API int bind(int, const struct sockaddr*, socklen_t) noexcept {
    return bind_error ? (errno = bind_error, -1) : 0;
}
extern "C" KAV_API unsigned if_nametoindex(const char*) noexcept { return interface_index; }

namespace {

TEST(Socket_stack, says_once_what_is_wrong_and_what_to_do) {
    using Stack = JIN_socket_stack;
    // Of socket(), of bind(); the interface's index.
    const std::tuple<int, int, unsigned, Stack::Trouble, const char*> rows[] = {
        {EPROTONOSUPPORT, 0, 1, Stack::no_kernel_support, "the kernel has no J1939: modprobe can-j1939"},
        {EACCES, 0, 1, Stack::not_permitted, "no right to open CAN sockets: let the service use AF_CAN"},
        {0, ENODEV, 0, Stack::no_interface,
         "there is no such interface: plug it in, or choose one that 'ip link' shows"},
        {0, ENODEV, 1, Stack::no_can_interface, "is no CAN interface: choose one that 'ip -d link' shows as can"},
        {0, ENETDOWN, 1, Stack::interface_down, "the interface is down: ip link set can7 up type can bitrate 250000"},
        {EMFILE, 0, 1, Stack::other_trouble, "Too many open files: see dmesg"},
    };
    for (const auto& [at_socket, at_bind, index, trouble, text] : rows) {
        socket_error = at_socket, bind_error = at_bind, interface_index = index;
        const std::string printed = debug_text([&] {
            Node_of<Stack> node(JIN_inbox::for_this_node, Diner_info_list::get(), "can7", JIN_name(1), uint8_t{10});
            attempts = 0;
            ASSERT_TRUE(node.stack.start());
            EXPECT_TRUE(wait_until([&] { return attempts >= 2; })) << "it tries again";
            EXPECT_VALUES(texts(trouble, JIN_stack::busy, "5", false), node.stack.trouble(),
                          node.send(message(0xFF00, "x")), node.events(), node.stack.bus_is_there());
            socket_error = bind_error = 0, interface_index = 1;
            EXPECT_TRUE(wait_until([&] { return node.stack.bus_is_there(); }));
            EXPECT_TRUE(wait_until([&] { return node.events() == "6"; }));
            EXPECT_EQ(node.stack.trouble(), Stack::none);
        });
        EXPECT_EQ(printed, std::string("JIN can7: ") + text + "\nJIN can7: the bus is there\n");
    }
}

} // namespace
