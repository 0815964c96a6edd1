// SPDX-License-Identifier: MIT
// The kernel's own CAN stack on a virtual bus.
#include "kernel/Guest.h"
#include <linux/can.h>
#include <linux/can/j1939.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr unsigned pgn_dm1 = 0xFECA;

struct J1939_socket {
    explicit J1939_socket(unsigned char address) : fd(socket(PF_CAN, SOCK_DGRAM, CAN_J1939)) {
        const int yes = 1;
        setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &yes, sizeof yes);
        const timeval limit = {20, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        const sockaddr_can own = at(address, J1939_NO_PGN);
        bound = bind(fd, reinterpret_cast<const sockaddr*>(&own), sizeof own) == 0;
    }
    ~J1939_socket() { close(fd); }
    J1939_socket(const J1939_socket&) = delete;

    static sockaddr_can at(unsigned char address, unsigned pgn) {
        sockaddr_can a = {};
        a.can_family = AF_CAN;
        a.can_ifindex = static_cast<int>(if_nametoindex("vcan0"));
        a.can_addr.j1939 = {J1939_NO_NAME, pgn, address};
        return a;
    }
    bool send(const std::string& bytes, unsigned char to) const {
        const sockaddr_can a = at(to, pgn_dm1);
        return sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&a), sizeof a) ==
               static_cast<ssize_t>(bytes.size());
    }
    /// "SENDER: BYTES"
    std::string receive() const {
        char bytes[2000];
        sockaddr_can from = {};
        socklen_t length = sizeof from;
        const ssize_t n = recvfrom(fd, bytes, sizeof bytes, 0, reinterpret_cast<sockaddr*>(&from), &length);
        if (n < 0 || from.can_addr.j1939.pgn != pgn_dm1) return "nothing";
        return std::to_string(from.can_addr.j1939.addr) + ": " + std::string(bytes, static_cast<size_t>(n));
    }

    const int fd;
    bool bound;
};

TEST(CAN, interface_comes_up_and_two_sockets_talk) {
    Guest::must("modprobe vcan && modprobe can-raw && modprobe can-j1939");
    Guest::must("ip link add dev vcan0 type vcan && ip link set vcan0 up");
    const J1939_socket display(0x26), controller(0x80);
    ASSERT_TRUE(display.bound && controller.bound);
    // A frame, more than a frame to all, and to one: what is longer the kernel cuts up and puts together.
    const std::string few = "8 bytes.", many(100, 'x');
    ASSERT_TRUE(controller.send(few, 0x26));
    EXPECT_EQ(display.receive(), "128: " + few);
    ASSERT_TRUE(controller.send(many, J1939_NO_ADDR));
    EXPECT_EQ(display.receive(), "128: " + many);
    EXPECT_EQ(controller.receive(), "128: " + many) << "who may send to all hears itself, too";
    ASSERT_TRUE(display.send(many, 0x80));
    EXPECT_EQ(controller.receive(), "38: " + many);
    Guest::must("ip link del vcan0");
}

} // namespace
