// SPDX-License-Identifier: MIT
// Nodes on the kernel's own J1939 stack and a virtual bus, among the tools of can-utils.
#include "glue/jin/JIN_socket_stack.h"
#include "jin/Test_bus.h"
#include "kernel/Guest.h"
#include "support/wait_until.h"

namespace {

const JIN_name strong(0x8000000000000064), weak(0x80000000000000C8);
const std::string few = "few", many(100, 'x'), longer(1002, 'd');

/// A program that runs beside the test, another process on the bus, its output in a file; it ends with the object.
class Peer {
public:
    explicit Peer(const std::string& command) {
        Guest::sh(command + " >" + _out + " 2>&1 & echo $! >" + _out + ".pid");
    }
    ~Peer() { Guest::sh("kill $(cat " + _out + ".pid)"); }
    Peer(const Peer&) = delete;
    bool has_said(const std::string& text) const { return read_file(_out).find(text) != std::string::npos; }

private:
    inline static Temporary_folder folder;
    inline static int count = 0;
    const std::string _out = folder.file(std::to_string(count++));
};

struct Socket_node : Node_of<JIN_socket_stack> {
    Socket_node(JIN_name name, uint8_t preferred, const char* interface = "vcan0")
        : Node_of(JIN_inbox::for_this_node, Diner_info_list::get(), interface, name, preferred) {
        EXPECT_TRUE(stack.start());
    }
    bool has_address(int a) {
        return wait_until([&] { return address() == a; });
    }
    bool is_told(int event) {
        return wait_until([&] {
            all_events += " " + events() + " ";
            return all_events.find(" " + std::to_string(event) + " ") != std::string::npos;
        });
    }
    /// Until the kernel agrees that the address is ours.
    bool sends(const JIN_message& m) {
        return wait_until([&] { return send(m) == JIN_stack::taken; });
    }
    bool hears(const JIN_message& m) {
        return wait_until([&] { return (heard += received()).find(text_of_message(m)) != std::string::npos; });
    }
    std::string all_events, heard;
};

/// One says so, and another one hears it.
void talk(Socket_node& from, Socket_node& to, uint32_t pgn, const std::string& bytes, bool to_all = true) {
    JIN_grow_message m = message(pgn, bytes, to_all ? JIN::global : static_cast<uint8_t>(to.address()));
    EXPECT_TRUE(from.sends(m));
    m.source = static_cast<uint8_t>(from.address());
    EXPECT_TRUE(to.hears(m)) << text_of_message(m) << " in " << to.heard;
}

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
    talk(a, b, 0xFF01, few);
    talk(a, b, 0xEF00, few, false);
    talk(b, a, 0xEF00, many, false);
    // A list of 250 trouble codes: seven seconds, and what is short goes past it.
    ASSERT_TRUE(a.sends(message(0xFECA, longer)));
    EXPECT_EQ(a.send(message(0xFECA, longer)), JIN_stack::busy);
    talk(a, b, 0xFF02, few);
    EXPECT_EQ(b.heard.find("FECA"), std::string::npos);
    EXPECT_TRUE(b.hears(message(0xFECA, longer, 0xFF, 0x80)) && a.is_told(JIN_stack::event_room));
    EXPECT_EQ(a.send(message(0xFECA, "12345678")), JIN_stack::taken);
    // To nobody.
    EXPECT_EQ(a.stack.transfers_failed(), 0u);
    EXPECT_TRUE(a.sends(message(0xEF00, many, 0x33)) && a.is_told(JIN_stack::event_transfer));
    EXPECT_EQ(a.stack.transfers_failed(), 1u);
    EXPECT_EQ(a.all_events.find(" 7 "), std::string::npos) << "its own messages are no violation";
    EXPECT_EQ((a.heard + a.received()).find("80>FF"), std::string::npos) << "nor does it receive them";
    for (const char* frame : {"18EAFFFE#00EE00", "18EEFF80#6400000000000080", "18EEFF20#C800000000000080",
                              "18FF0180#666577", "18EF2080#666577", "18EC8020#1064000F0F00EF00",
                              "18ECFF80#20EA0390FFCAFE00", "18EBFF80#0164646464646464", "18EBFF80#9064FFFFFFFFFFFF"})
        EXPECT_TRUE(wait_until([&] { return record.has_said(frame); })) << frame;
}

TEST_F(Jin, two_that_want_one_address) {
    Socket_node a(weak, 0x80);
    ASSERT_TRUE(a.has_address(0x80));
    Socket_node b(strong, 0x80);
    ASSERT_TRUE(b.has_address(0x80) && a.has_address(128 + 0xC8 % 120));
    EXPECT_TRUE(a.is_told(JIN_stack::event_address_lost));
    Socket_node c(JIN_name(0x1000), 0x80); // fixed
    EXPECT_TRUE(c.is_told(JIN_stack::event_claimed)) << "the stronger the smaller";
    EXPECT_TRUE(b.has_address(128 + 0x64 % 120));
    talk(b, c, 0xFF00, "b");
    talk(a, c, 0xFF00, "a");
    // Another program's claims, questions and commands.
    Peer record("candump -L vcan0");
    EXPECT_TRUE(wait_until([&] {
        Guest::sh("cansend vcan0 18EAFFFE#00EE00"); // until candump listens
        return record.has_said("18EEFF80#0010");
    }));
    Guest::sh("cansend vcan0 18EEFFE4#0100000000000080"); // wins
    EXPECT_TRUE(b.has_address(128 + 0x64 % 120 + 1)) << b.address();
    Guest::sh("cansend vcan0 18FF0080#01"); // somebody uses an address that he did not claim
    EXPECT_TRUE(c.is_told(JIN_stack::event_violation));
    Guest::sh("cansend vcan0 1CECFF55#20090002FFD8FE00;"
              "cansend vcan0 1CEBFF55#01C8000000000000; cansend vcan0 1CEBFF55#028091FFFFFFFFFF");
    EXPECT_TRUE(a.has_address(0x91));
    talk(a, c, 0xFF00, "c");
    const uint32_t failed = c.stack.receptions_failed();
    Guest::sh("cansend vcan0 18EC8055#1064000F0F00EF00"); // begins a long message and falls silent
    EXPECT_TRUE(wait_until([&] { return c.stack.receptions_failed() > failed; }));
}

TEST_F(Jin, the_tools_of_others) {
    // Both want 0x80. The other's NAME wins.
    Socket_node a(strong, 0x80);
    ASSERT_TRUE(a.has_address(0x80));
    Peer daemon("j1939acd -r 0x80 -a 0x80 1 vcan0");
    EXPECT_TRUE(a.has_address(0xE4));
    JIN_name other;
    EXPECT_TRUE(a.stack.name_of(0x80, other) && other == JIN_name(1));
    // What they send: 01 23 45 and so on.
    std::string pattern;
    for (int i = 0; i < 100; ++i) pattern += static_cast<char>(((2 * i & 15) << 4) + ((2 * i + 1) & 15));
    for (const char* const to : {"0xE4,0xEF00", "0xFF,0xFECA"})
        EXPECT_TRUE(wait_until([&] { return Guest::sh("testj1939 -B -s100 vcan0:0x80,,1 :" + std::string(to)) == 0; }));
    EXPECT_TRUE(a.hears(message(0xEF00, pattern, 0xE4, 0x80)) && a.hears(message(0xFECA, pattern, 0xFF, 0x80)));
    Peer cat("j1939cat vcan0:0x33 -r"), test("testj1939 -r vcan0:0x34");
    EXPECT_TRUE(wait_until([&] {
        a.send(message(0xEF00, longer, 0x33)); // until it listens
        a.send(message(0xEF00, few, 0x34));
        return cat.has_said(longer) && test.has_said("66 65 77");
    }));
}

TEST_F(Jin, the_interface_goes_and_comes_back) {
    using Stack = JIN_socket_stack;
    Socket_node a(strong, 0x80), b(weak, 0x20), never(JIN_name(5), 0x55, "vcan9"), nothing(JIN_name(6), 0x56, "lo");
    EXPECT_TRUE(never.is_told(JIN_stack::event_bus_gone) && nothing.is_told(JIN_stack::event_bus_gone));
    EXPECT_TRUE(never.stack.trouble() == Stack::no_interface && nothing.stack.trouble() == Stack::no_can_interface);
    const std::tuple<const char*, const char*, Stack::Trouble> rows[] = {
        {"ip link set vcan0 down", "ip link set vcan0 up", Stack::interface_down},
        {"ip link del vcan0", "ip link add dev vcan0 type vcan && ip link set vcan0 up", Stack::no_interface}};
    for (const auto& [go, come, trouble] : rows) {
        SCOPED_TRACE(go);
        ASSERT_TRUE(a.has_address(0x80) && b.has_address(0x20));
        ASSERT_TRUE(a.sends(message(0xFECA, many))); // in the middle of a transfer
        Guest::must(go);
        a.all_events.clear();
        EXPECT_TRUE(a.is_told(JIN_stack::event_bus_gone) && a.address() == -1);
        EXPECT_EQ(a.send(message(0xFF00, few)), JIN_stack::busy);
        EXPECT_TRUE(wait_until([&, t = trouble] { return a.stack.trouble() == t; })) << a.stack.trouble();
        Guest::must(come);
        EXPECT_TRUE(a.has_address(0x80) && b.has_address(0x20));
        b.heard.clear();
        talk(a, b, 0xFF00, few);
    }
}

/// Ten seconds with more frames than 250 kbit/s can carry, of a PGN that nobody here wants.
TEST_F(Jin, a_flood_disturbs_nobody) {
    using namespace std::chrono;
    JIN_socket_stack a(Diner_info_list::get(), "vcan0", strong, 0x80), b(Diner_info_list::get(), "vcan0", weak, 0x20);
    JIN_inbox inbox(a, nullptr, {0xEF00}), other(b, nullptr, {0xEF00});
    uint8_t own;
    ASSERT_TRUE(a.start() && b.start() && wait_until([&] { return a.address(own) && b.address(own); }));
    const auto frames = [] { return std::stol(read_file("/sys/class/net/vcan0/statistics/tx_packets")); };
    const long frames_before = frames();
    const clock_t cpu_before = clock();
    int answers = 0;
    milliseconds longest{0};
    Peer flood("cangen vcan0 -g 4 -c 40 -e -I 18FF1099 -L 8 -i");
    for (const auto started = steady_clock::now(); steady_clock::now() - started < seconds(10); usleep(10000)) {
        const auto sent = steady_clock::now();
        ASSERT_TRUE(wait_until([&] { return b.send(message(0xEF00, "ping", 0x80)) == JIN_stack::taken; }));
        JIN_grow_message m;
        ASSERT_TRUE(wait_until([&] { return inbox.receive(m); }));
        longest = std::max(longest, duration_cast<milliseconds>(steady_clock::now() - sent));
        ++answers;
    }
    const long flooded = frames() - frames_before;
    printf("%ld frames, %d messages among them, longest %ld ms, %ld ms of the processor\n", flooded, answers,
           static_cast<long>(longest.count()), (clock() - cpu_before) * 1000 / CLOCKS_PER_SEC);
    EXPECT_GE(flooded, 18500) << "the bus is full";
    EXPECT_GE(answers, 100);
    EXPECT_EQ(inbox.lost(), 0u);
}

} // namespace
