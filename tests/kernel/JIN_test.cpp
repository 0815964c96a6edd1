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
    ~Peer() {
        kill(_pid, SIGTERM);
        waitpid(_pid, nullptr, 0);
    }
    Peer(const Peer&) = delete;
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

struct Socket_node : Node_of<JIN_socket_stack> {
    Socket_node(JIN_name name, uint8_t preferred, const char* interface = "vcan0")
        : Node_of(JIN_inbox::for_this_node, Diner_info_list::get(), interface, name, preferred) {
        EXPECT_TRUE(stack.start());
    }
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
    a.hears(text_of_message(message(0xEF00, many, 0x80, 0x20)));
    // A list of 250 trouble codes: seven seconds, and what is short goes past it.
    ASSERT_TRUE(a.sends(message(0xFECA, dm1)));
    EXPECT_EQ(a.send(message(0xFECA, dm1)), JIN_stack::busy);
    ASSERT_TRUE(a.sends(message(0xFF02, "past")));
    b.hears("FF02 80>FF 6: 70 61 73 74");
    EXPECT_EQ(b.heard.find("FECA"), std::string::npos);
    b.hears(text_of_message(message(0xFECA, dm1, 0xFF, 0x80)));
    EXPECT_TRUE(a.is_told(JIN_stack::event_room));
    EXPECT_EQ(a.send(message(0xFECA, "12345678")), JIN_stack::taken);
    // To nobody.
    EXPECT_EQ(a.stack.transfers_failed(), 0u);
    ASSERT_TRUE(a.sends(message(0xEF00, many, 0x33)));
    EXPECT_TRUE(a.is_told(JIN_stack::event_transfer));
    EXPECT_EQ(a.stack.transfers_failed(), 1u);
    EXPECT_EQ(a.all_events.find(" 7 "), std::string::npos) << "its own messages are no violation";
    a.heard.clear();
    EXPECT_EQ(a.hears(""), "") << "nor does it receive them";
    for (const char* frame : {"18EAFFFE#00EE00", "18EEFF80#6400000000000080", "18EEFF20#C800000000000080",
                              "18FF0180#73686F7274", "18EF2080#6F6E65", "18EC8020#1064000F0F00EF00",
                              "18ECFF80#20EA0390FFCAFE00", "18EBFF80#0164646464646464", "18EBFF80#9064FFFFFFFFFFFF"})
        EXPECT_TRUE(record.has_said(frame)) << frame;
}

TEST_F(Jin, two_that_want_one_address) {
    auto a = std::make_unique<Socket_node>(weak, 0x80);
    ASSERT_TRUE(a->has_address(0x80));
    Socket_node b(strong, 0x80);
    ASSERT_TRUE(b.has_address(0x80) && a->has_address(128 + 0xC8 % 120));
    EXPECT_TRUE(a->is_told(JIN_stack::event_address_lost));
    Socket_node c(JIN_name(0x1000), 0x80); // fixed
    EXPECT_TRUE(c.is_told(JIN_stack::event_claimed)) << "the stronger the smaller";
    EXPECT_TRUE(b.has_address(128 + 0x64 % 120));
    ASSERT_TRUE(b.sends(message(0xFF00, "b")) && a->sends(message(0xFF00, "a")));
    c.hears("FF00 E4>FF 6: 62");
    c.hears("FF00 D0>FF 6: 61");
    // Another program's claims, questions and commands.
    Peer record("candump -L vcan0");
    EXPECT_TRUE(wait_until([&] {
        Guest::sh("cansend vcan0 18EAFFFE#00EE00"); // until candump listens
        return std::regex_search(record.says(), std::regex("18EEFF80#0010"));
    }));
    Guest::sh("cansend vcan0 18EEFFE4#0100000000000080"); // wins
    EXPECT_TRUE(b.has_address(128 + 0x64 % 120 + 1)) << b.address();
    Guest::sh("cansend vcan0 18FF0080#01"); // somebody uses an address that he did not claim
    EXPECT_TRUE(c.is_told(JIN_stack::event_violation));
    Guest::sh("cansend vcan0 1CECFF55#20090002FFD8FE00;"
              "cansend vcan0 1CEBFF55#01C8000000000000; cansend vcan0 1CEBFF55#028091FFFFFFFFFF");
    EXPECT_TRUE(a->has_address(0x91));
    ASSERT_TRUE(a->sends(message(0xFF00, "c")));
    c.hears("FF00 91>FF 6: 63");
    const uint32_t failed = c.stack.receptions_failed();
    Guest::sh("cansend vcan0 18EC8055#1064000F0F00EF00"); // begins a long message and falls silent
    EXPECT_TRUE(wait_until([&] { return c.stack.receptions_failed() > failed; }));
}

TEST_F(Jin, the_tools_of_others) {
    // What they send: 01 23 45 and so on.
    std::string pattern, many(1002, 'd');
    for (int i = 0; i < 100; ++i) pattern += static_cast<char>(((2 * i & 15) << 4) + ((2 * i + 1) & 15));
    // Both want 0x80. The other's NAME wins.
    Socket_node a(strong, 0x80);
    ASSERT_TRUE(a.has_address(0x80));
    Peer daemon("j1939acd -r 0x80 -a 0x80 1 vcan0");
    EXPECT_TRUE(a.has_address(0xE4)) << daemon.says();
    JIN_name other;
    EXPECT_TRUE(a.stack.name_of(0x80, other) && other == JIN_name(1));
    const auto sent_by_another = [](const std::string& to) {
        return wait_until([&] { return Guest::sh("testj1939 -B -s100 vcan0:0x80,,1 :" + to) == 0; });
    };
    EXPECT_TRUE(sent_by_another("0xE4,0xEF00"));
    a.hears(text_of_message(message(0xEF00, pattern, 0xE4, 0x80)));
    EXPECT_TRUE(sent_by_another("0xFF,0xFECA"));
    a.hears(text_of_message(message(0xFECA, pattern, 0xFF, 0x80)));
    Peer cat("j1939cat vcan0:0x33 -r");
    EXPECT_TRUE(wait_until([&] {
        a.send(message(0xEF00, many, 0x33)); // until it listens
        return cat.says().find(many) != std::string::npos;
    }));
    Peer test("testj1939 -r vcan0:0x34");
    EXPECT_TRUE(wait_until([&] {
        a.send(message(0xEF00, "few", 0x34));
        return test.says().find("66 65 77") != std::string::npos;
    })) << test.says();
}

TEST_F(Jin, the_interface_goes_and_comes_back) {
    Socket_node a(strong, 0x80), b(weak, 0x20), never(JIN_name(5), 0x55, "vcan9"), nothing(JIN_name(6), 0x56, "lo");
    EXPECT_TRUE(never.is_told(JIN_stack::event_bus_gone) && nothing.is_told(JIN_stack::event_bus_gone));
    EXPECT_EQ(never.stack.trouble(), JIN_socket_stack::no_interface);
    EXPECT_EQ(nothing.stack.trouble(), JIN_socket_stack::no_can_interface);
    struct {
        const char *go, *come;
        JIN_socket_stack::Trouble trouble;
    } const rows[] = {
        {"ip link set vcan0 down", "ip link set vcan0 up", JIN_socket_stack::interface_down},
        {"ip link del vcan0", "ip link add dev vcan0 type vcan && ip link set vcan0 up",
         JIN_socket_stack::no_interface},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.go);
        ASSERT_TRUE(a.has_address(0x80) && b.has_address(0x20));
        ASSERT_TRUE(a.sends(message(0xFECA, std::string(100, 'x')))); // in the middle of a transfer
        Guest::must(r.go);
        a.all_events.clear();
        EXPECT_TRUE(a.is_told(JIN_stack::event_bus_gone) && a.address() == -1);
        EXPECT_EQ(a.send(message(0xFF00, "x")), JIN_stack::busy);
        EXPECT_TRUE(wait_until([&] { return a.stack.trouble() == r.trouble; })) << a.stack.trouble();
        Guest::must(r.come);
        EXPECT_TRUE(a.has_address(0x80) && b.has_address(0x20));
        b.heard.clear();
        ASSERT_TRUE(a.sends(message(0xFF00, "again")));
        b.hears("FF00 80>FF 6: 61 67 61 69 6E");
    }
}

/// What the next test starts as another process: says whatever it hears back to who said it.
TEST(Peer_process, DISABLED_echoes) {
    Socket_node node(weak, 0x20);
    for (JIN_grow_message m;; usleep(1000)) {
        if (!node.inbox.receive(m) || m.pgn != 0xEF00) continue;
        m.destination = m.source;
        node.sends(m);
    }
}

TEST_F(Jin, another_process) {
    const std::string self = std::filesystem::read_symlink("/proc/self/exe"), many(1002, 'd');
    Socket_node a(strong, 0x20); // which the other wants, too
    ASSERT_TRUE(a.has_address(0x20));
    Peer other(self + " --gtest_also_run_disabled_tests --gtest_filter=Peer_process.*");
    JIN_name name;
    EXPECT_TRUE(wait_until([&] { return a.stack.name_of(0xD0, name) && name == weak; }));
    EXPECT_TRUE(wait_until([&] { // it answers when the claim has stood for a while
        a.send(message(0xEF00, "few", 0xD0));
        return a.received().find(text_of_message(message(0xEF00, "few", 0x20, 0xD0))) != std::string::npos;
    }));
    ASSERT_TRUE(a.sends(message(0xEF00, many, 0xD0)));
    a.hears(text_of_message(message(0xEF00, many, 0x20, 0xD0)));
}

/// Ten seconds with more frames than 250 kbit/s can carry, of a PGN that nobody here wants.
TEST_F(Jin, a_flood_disturbs_nobody) {
    JIN_socket_stack a(Diner_info_list::get(), "vcan0", strong, 0x80), b(Diner_info_list::get(), "vcan0", weak, 0x20);
    JIN_inbox inbox(a, nullptr, {0xEF00}), other(b, nullptr, {0xEF00});
    uint8_t own;
    ASSERT_TRUE(a.start() && b.start() && wait_until([&] { return a.address(own) && b.address(own); }));
    const auto cpu_ms = [] {
        struct timespec t;
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
        return t.tv_sec * 1000 + t.tv_nsec / 1000000;
    };
    const auto frames = [] { return std::stol(read_file("/sys/class/net/vcan0/statistics/tx_packets")); };
    const auto started = std::chrono::steady_clock::now();
    const long frames_before = frames(), cpu_before = cpu_ms();
    int answers = 0;
    long longest = 0;
    {
        Peer flood("cangen vcan0 -g 4 -c 40 -e -I 18FF1099 -L 8 -i");
        while (std::chrono::steady_clock::now() - started < std::chrono::seconds(10)) {
            const auto sent = std::chrono::steady_clock::now();
            ASSERT_TRUE(wait_until([&] { return b.send(message(0xEF00, "ping", 0x80)) == JIN_stack::taken; }));
            JIN_grow_message m;
            ASSERT_TRUE(wait_until([&] { return inbox.receive(m); }));
            longest = std::max<long>(
                longest,
                std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - sent).count());
            ++answers;
            usleep(10000);
        }
    }
    const long flooded = frames() - frames_before;
    printf("%ld frames, %d messages among them, longest %ld ms, %ld ms of the processor\n", flooded, answers, longest,
           cpu_ms() - cpu_before);
    EXPECT_GE(flooded, 18500) << "the bus is full";
    EXPECT_GE(answers, 100);
    EXPECT_EQ(inbox.lost(), 0u);
}

} // namespace
