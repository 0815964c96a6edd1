// SPDX-License-Identifier: MIT
// What comes from a CAN bus: frames through the assembler into the monitor, to a manager and to nodes that want each
// other's addresses. "l" and lines of a log; "f" and frames of a length, an identifier and the bytes; "c" and a file of
// trouble codes.
#include "diagnostics/Driven_manager.h"
#include "fuzz/checks.h"
#include "glue/diagnostics/Isobus_diagnostics.h"
#include "glue/diagnostics/Trouble_code_monitor.h"
#include "glue/diagnostics/Trouble_code_text.h"
#include "glue/jin/JIN_assembler.h"
#include "jin/Test_bus.h"
#include <set>
#include <sstream>

namespace {

/// One for all inputs, since a diner's thread costs more than an input.
struct Bus {
    Bus() {
        manager.attach(node);
        for (unsigned spn = 1; spn < 10; ++spn) manager.set_active(spn, 3);
        for (int i = 0; i < 100; ++i) step(10);
        uint8_t own;
        require(node.address(own) && own == 0x80, "the address is claimed");
    }
    void step(int ms) {
        clock.advance(ms);
        bus.process();
        manager.turn();
        for (Test_node& n : neighbours) n.received(), n.events();
    }
    /// Nothing more is heard, and nobody shares an address.
    void rest() {
        for (int i = 0; i < 4; ++i, step(20000))
            for (Test_node& n : neighbours) n.send(message(0xFF00, "x"));
        std::set<int> used;
        uint8_t own;
        if (node.address(own)) used.insert(own);
        for (Test_node& n : neighbours)
            require(n.address() < 0 || used.insert(n.address()).second, "an address has one owner");
    }

    static constexpr uint64_t arbitrary = uint64_t{1} << 63;
    Manual_clock clock{1700000000};
    JIN_memory_bus bus;
    JIN_memory_bus::Node node{bus, Diner_info_list::get(), JIN_name(1), 0x80};
    Test_node neighbours[3] = {
        {bus, JIN_name(arbitrary | 100), 0x81}, {bus, JIN_name(arbitrary | 50), 0x81}, {bus, JIN_name(200), 0x80}};
    Driven_manager manager{4096, "H", 20};
    Isobus_diagnostics isobus{manager};
};

void fuzz_log(const std::string& text) {
    static Bus bus;
    const uint64_t frames_before = bus.bus.num_frames();
    uint64_t messages = 0;
    Trouble_code_monitor monitor;
    Atime now(false);
    JIN_assembler assembler([&](const JIN_message& m) {
        monitor.take(m, now);
        bus.bus.inject(m);
        bus.step(5 + m.priority * 50);
        ++messages;
        for (unsigned a = 0; (a = monitor.next(a)) < JIN::no_address; ++a) {
            uint32_t last = 0;
            require(monitor.node(a)->active.size() <= Trouble_code_messages::max_received_codes, "a row is bounded");
            for (const auto& c : monitor.node(a)->active) {
                require(c.code.valid() && last < c.code.key(), "codes name faults, in order, each once");
                last = c.code.key();
            }
        }
    });
    std::istringstream lines(text);
    JIN_frame f, again;
    for (std::string line; std::getline(lines, line);) {
        if (!f.read(line)) continue;
        require(again.read(f.to_line("can0")) && again.to_line("can0") == f.to_line("can0") &&
                    again.identifier == f.identifier && again.size == f.size,
                "a frame is written as it is read");
        now.time = static_cast<int32_t>(f.us / 1000000);
        assembler.frame(f.identifier, f.bytes, f.size, f.us / 1000);
    }
    bus.rest();
    require(bus.bus.num_frames() - frames_before < 400 * messages + 5000, "no message sets off an endless exchange");
}

/// Frames as the lines of a log.
std::string log_of(Input& in) {
    std::string log;
    for (JIN_frame f; !in.is_empty(); log += f.to_line("can0") + "\n") {
        const unsigned head = in.next();
        f.us += (head >> 4) * 100000;
        f.identifier = in.little_endian(4) & 0x1FFFFFFF;
        f.size = std::min(head & 15, 8u);
        for (unsigned i = 0; i < f.size; ++i) f.bytes[i] = in.next();
    }
    return log;
}

} // namespace

void fuzz(Input in) {
    const uint8_t what = in.next();
    if (what == 'l') fuzz_log(in.rest());
    if (what == 'f') fuzz_log(log_of(in));
    if (what != 'c') return;
    Trouble_code_table codes(30), again(30);
    from_text(in.rest(), codes);
    from_text(to_text(codes), again);
    require(to_text(codes) == to_text(again), "codes are written as they are read");
}
