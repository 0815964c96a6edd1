// SPDX-License-Identifier: MIT
// Nodes on the kernel's own J1939 stack and a virtual bus, among the tools of can-utils, and bus_monitor there.
#include "glue/diagnostics/Diagnostics.h"
#include "glue/diagnostics/Isobus_diagnostics.h"
#include "glue/jin/JIN_socket_stack.h"
#include "jin/Test_bus.h"
#include "kernel/Guest.h"

namespace {

const JIN_name strong(0x8000000000000064), weak(0x80000000000000C8);
const std::string few = "few", many(100, 'x'), longer(1002, 'd');

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

struct Jin : testing::Test {
    Jin() {
        Guest::must("modprobe vcan && modprobe can-raw && modprobe can-j1939");
        Guest::must("ip link add dev vcan0 type vcan && ip link set vcan0 up");
    }
    ~Jin() override { Guest::sh("ip link del vcan0"); }
};

TEST_F(Jin, nodes_talk) {
    Guest::sh("candump -L vcan0 >/tmp/frames &"); // until the bus goes
    Socket_node b(weak, 0x80);
    ASSERT_TRUE(b.has_address(0x80));
    Socket_node a(strong, 0x80);
    ASSERT_TRUE(a.has_address(0x80) && b.has_address(128 + 0xC8 % 120) && b.is_told(JIN_stack::event_address_lost));
    a.received(); // the claims
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
    for (const char* frame : {"18EAFFFE#00EE00", "18EEFF80#6400000000000080", "18EEFFD0#C800000000000080",
                              "18FF0180#666577", "18EFD080#666577", "18EC80D0#1064000F0F00EF00",
                              "18ECFF80#20EA0390FFCAFE00", "18EBFF80#0164646464646464", "18EBFF80#9064FFFFFFFFFFFF"})
        EXPECT_TRUE(wait_until([&] { return read_file("/tmp/frames").find(frame) != std::string::npos; })) << frame;
    // Another program uses an address that is not its own, commands one, begins a long message and falls silent, and
    // claims an address with a smaller NAME.
    Guest::sh("cansend vcan0 18FF0080#01; cansend vcan0 1CECFF55#20090002FFD8FE00;"
              "cansend vcan0 1CEBFF55#01C8000000000000; cansend vcan0 1CEBFF55#028091FFFFFFFFFF");
    EXPECT_TRUE(a.is_told(JIN_stack::event_violation) && b.has_address(0x91));
    talk(b, a, 0xFF00, few);
    const uint32_t failed = a.stack.receptions_failed();
    Guest::sh("cansend vcan0 18EC8055#1064000F0F00EF00");
    EXPECT_TRUE(wait_until([&] { return a.stack.receptions_failed() > failed; }));
    Guest::sh("cansend vcan0 18EEFF80#0100000000000080");
    JIN_name other;
    EXPECT_TRUE(a.has_address(0xE4) && a.stack.name_of(0x80, other) && other.value == 0x8000000000000001);
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

/// With more frames than 250 kbit/s can carry.
TEST_F(Jin, a_flood_disturbs_nobody) {
    Socket_node a(strong, 0x80), b(weak, 0x20);
    ASSERT_TRUE(a.has_address(0x80) && b.has_address(0x20));
    Guest::sh("cangen vcan0 -g 4 -c 40 -e -I 18FF1099 -L 8 -i &");
    int answers = 0;
    const auto frames = [] { return std::stol(read_file("/sys/class/net/vcan0/statistics/tx_packets")); };
    ASSERT_TRUE(wait_until([&, before = frames()] { return frames() > before + 1000; })) << "there is no flood";
    for (const long before = frames(); frames() < before + 18500 && !HasFailure(); ++answers) {
        a.heard.clear();
        talk(b, a, 0xEF00, "ping " + std::to_string(answers), false);
    }
    EXPECT_GE(answers, 100);
    EXPECT_EQ(a.inbox.lost(), 0u);
}

/// Status and output of a program of the build with its arguments.
std::string run(const std::string& command) {
    const std::string folder = std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path();
    const int status = Guest::sh(folder + "/" + command + " >/tmp/out 2>&1 </dev/null"); // or begun, with & behind it
    return std::to_string(status) + " " + read_file("/tmp/out");
}

TEST_F(Jin, bus_monitor_shows_asks_clears_and_records) {
    JIN_socket_stack node(Diner_info_list::get(), "vcan0", JIN_name(0xA000000000000001), 128);
    ASSERT_TRUE(node.start());
    Diagnostics manager("H");
    manager.init(Diner_info_list::get(), nullptr, 0);
    manager.attach(node);
    Isobus_diagnostics isobus(manager);
    isobus.set_product("FC-1", "", "Field controller"); // longer than a frame
    manager.start();
    for (unsigned spn = 1; spn <= 4; ++spn) manager.set_active(spn, 3);
    manager.set_inactive(4, 3);
    const auto shows = [](const std::string& arguments, const std::string& text, unsigned times = 1) {
        const std::string all = run("apps/bus_monitor " + arguments);
        unsigned n = 0;
        for (size_t at = 0; (at = all.find(text, at)) != std::string::npos; at += text.size()) ++n;
        EXPECT_EQ(n, times) << arguments << ": " << all;
    };
    shows("vcan0 --once --csv --seconds 5 --record /tmp/log", "\n128,A000000000000001,\"FC-1 Field controller\",", 3);
    shows("/tmp/log --csv", ",3,\"voltage too high or shorted high\",1,", 3);
    shows("vcan0 --request 65227 --to 128 --seconds 2", "128  PGN 65227, 8 bytes: FF FF 04 00 03 01 FF FF\n");
    shows("vcan0 --request 65000 --to 128 --seconds 2", " PGN 65000 not supported\n");
    shows("vcan0 --clear 128 --yes",
          "0 address 128: active codes erased\naddress 128: previously active codes erased\n");
    shows("vcan0 --clear 77 --yes", "1 bus_monitor: address 77 does not answer\n");
    for (unsigned spn = 1; spn <= 250; ++spn) manager.set_active(spn, 3);
    shows("vcan0 --listen --once --csv --seconds 18", "\n128,", 250);
    run("examples/field_controller --can vcan0 --seconds 30 --faults 2 --quiet --settings /tmp/settings >/tmp/demo &");
    EXPECT_TRUE(wait_until([] { // it has something to tell when its line has had some faults
        const std::string once = run("apps/bus_monitor vcan0 --once --seconds 6");
        return once.find("\n140  1    agriculture") != std::string::npos;
    })) << read_file("/tmp/demo");
    Guest::must("ip link set vcan0 down");
    shows("vcan0 --listen --once", "1 bus_monitor: vcan0: Network is down\n");
    manager.terminate(true);
}

} // namespace
