// SPDX-License-Identifier: MIT
// Nodes on the kernel's own J1939 stack and a virtual bus, among the tools of can-utils.
#include "glue/jin/JIN_socket_stack.h"
#include "jin/Test_bus.h"
#include "kernel/Guest.h"
#include "support/wait_until.h"
#include <csignal>
#include <memory>
#include <regex>

namespace {

const JIN_name strong(0x8000000000000064), weak(0x80000000000000C8);

/// A program that runs beside the test, its output in a file; it ends with the object.
class Peer {
public:
    explicit Peer(const std::string& command) : _pid(fork()) {
        if (_pid != 0) return;
        execl("/bin/sh", "sh", "-c", ("exec " + command + " >" + out() + " 2>&1").c_str(), nullptr);
        _exit(127);
    }
    ~Peer() { end(); }
    Peer(const Peer&) = delete;
    /// Its output; a second call only gives that.
    std::string end() {
        if (_pid > 0) {
            kill(_pid, SIGTERM);
            waitpid(_pid, nullptr, 0);
        }
        return says();
    }
    std::string says() const { return read_file(out()); }
    bool has_said(const std::string& pattern) const {
        return wait_until([&] { return std::regex_search(says(), std::regex(pattern)); });
    }

private:
    std::string out() const { return folder.file(std::to_string(_number)); }
    inline static Temporary_folder folder;
    inline static int count = 0;
    const int _number = count++;
    const pid_t _pid;
};

struct Socket_node : private JIN_socket_stack, public Node_view {
    Socket_node(JIN_name name, uint8_t preferred, const char* interface = "vcan0")
        : JIN_socket_stack(Diner_info_list::get(), interface, name, preferred)
        , Node_view(static_cast<JIN_socket_stack&>(*this)) {
        EXPECT_TRUE(start());
    }
    JIN_socket_stack& stack() { return *this; }
    using Node_view::address;
    using Node_view::send;
    bool has_address(int a) {
        return wait_until([&] { return address() == a; });
    }
    /// Until the kernel agrees that the address is ours.
    bool sends(const JIN_message& m) {
        return wait_until([&] { return send(m) == JIN_stack::taken; });
    }
    bool is_told(int event) {
        return wait_until([&] {
            all_events += " " + events() + " ";
            return all_events.find(" " + std::to_string(event) + " ") != std::string::npos;
        });
    }
    /// Everything received that is no network management.
    std::string hears(const std::string& what) {
        EXPECT_TRUE(wait_until([&] {
            for (JIN_grow_message m; inbox.receive(m);) {
                if (m.pgn != JIN::pgn_address_claimed && m.pgn != JIN::pgn_request) heard += text_of_message(m) + "\n";
            }
            return heard.find(what) != std::string::npos;
        })) << what
            << " in " << heard;
        return heard;
    }
    std::string all_events, heard;
};

class Jin : public testing::Test {
protected:
    void SetUp() override {
        Guest::must("modprobe vcan && modprobe can-raw && modprobe can-j1939");
        Guest::must("ip link add dev vcan0 type vcan && ip link set vcan0 up");
    }
    void TearDown() override { Guest::sh("ip link del vcan0"); }
};

TEST_F(Jin, two_nodes_talk) {
    Peer record("candump -L vcan0");
    Socket_node a(strong, 0x80), b(weak, 0x20);
    ASSERT_TRUE(a.has_address(0x80) && b.has_address(0x20));
    const std::string many(100, 'x'), dm1(1002, 'd');
    ASSERT_TRUE(a.sends(message(0xFF01, "short")));
    b.hears("FF01 80>FF 6: 73 68 6F 72 74");
    ASSERT_TRUE(a.sends(message(0xEF00, "one", 0x20)));
    b.hears("EF00 80>20 6: 6F 6E 65");
    ASSERT_TRUE(b.sends(message(0xEF00, many, 0x80)));
    EXPECT_TRUE(b.is_told(JIN_stack::event_claimed));
    a.hears(text_of_message(message(0xEF00, many, 0x80, 0x20)).replace(12, 1, "7"));
    // A list of 250 trouble codes: seven seconds, and what is short goes past it.
    ASSERT_TRUE(a.sends(message(0xFECA, dm1)));
    EXPECT_EQ(a.send(message(0xFECA, dm1)), JIN_stack::busy);
    ASSERT_TRUE(a.sends(message(0xFF02, "past")));
    b.hears("FF02 80>FF 6: 70 61 73 74");
    EXPECT_EQ(b.heard.find("FECA"), std::string::npos);
    b.hears(" 64 64");
    EXPECT_TRUE(a.sends(message(0xFF03, "")));
    EXPECT_EQ(a.hears(""), "") << a.heard;
    printf("%s\n", record.end().substr(0, 3000).c_str());
    printf("events %s | %s\n", a.all_events.c_str(), a.events().c_str());
}

} // namespace
