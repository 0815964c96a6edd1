// SPDX-License-Identifier: MIT
// What comes from a CAN bus: frames through the assembler into the monitor, to a manager and to nodes that want each
// other's addresses. "l" and lines of a log; "c" and a file of trouble codes; "f" and steps, of a byte each and what it
// needs. In its low four bits stands:
//   0..8   a frame of that length: an identifier, little-endian, and the bytes; the high bits are the time [100 ms]
//   9      NODE LENGTH DESTINATION   a node sends [7 bytes]
//   10     LOSS                      of frames from now on [4 per mille]
//   11     TIME                      the bus goes, or comes back
//   more   TIME                      passes [10 ms]; so it does with the byte behind 9 to 11
#include "diagnostics/Driven_manager.h"
#include "fuzz/checks.h"
#include "glue/diagnostics/Isobus_diagnostics.h"
#include "glue/diagnostics/Trouble_code_monitor.h"
#include "glue/diagnostics/Trouble_code_text.h"
#include "glue/jin/JIN_assembler.h"
#include "jin/Test_bus.h"
#include <memory>
#include <set>
#include <sstream>

namespace {

/// One for all inputs, since a diner's thread costs more than an input: what an input leaves in it stays.
struct Managed {
    Managed() {
        manager.attach(node);
        for (unsigned spn = 1; spn < 10; ++spn) manager.set_active(spn, 3);
        for (int i = 0; i < 100; ++i) clock.advance(10), turn();
        uint8_t own;
        require(node.address(own) && own == 0x80, "the address is claimed");
    }
    void turn() {
        bus.process();
        manager.turn();
    }

    Manual_clock clock{1700000000};
    JIN_memory_bus bus;
    JIN_memory_bus::Node node{bus, Diner_info_list::get(), JIN_name(1), 0x80};
    Driven_manager manager{4096, "H", 20};
    Isobus_diagnostics isobus{manager};
};

constexpr uint64_t arbitrary = uint64_t{1} << 63;
constexpr JIN_inbox::Reach reach = JIN_inbox::everything;

/// What an input says, to the manager's bus and to another one.
class Traffic {
public:
    explicit Traffic(Managed& m) : _managed(m), _frames_before(m.bus.num_frames()) {}
    void take(const JIN_frame& f) {
        JIN_frame again;
        require(again.read(f.to_line("can0")) && again.to_line("can0") == f.to_line("can0") &&
                    again.identifier == f.identifier && again.size == f.size,
                "a frame is written as it is read");
        _now.time = static_cast<int32_t>(f.us / 1000000);
        _assembler.frame(f.identifier, f.bytes, f.size, f.us / 1000);
    }
    /// What is no frame.
    void take(unsigned kind, Input& in) {
        const uint8_t value = in.next();
        if (kind == 9) {
            const uint8_t length = in.next(), destination = in.next();
            _nodes[value % std::size(_nodes)].send(message(0xEF00, std::string(length * 7u, 'x'), destination));
        }
        if (kind == 10) _bus.set_loss(value * 4u);
        if (kind == 11) _bus.set_there(_there = !_there);
        step(value * 10);
    }
    /// Nothing more is heard, and nobody shares an address.
    void rest() {
        _bus.set_there(true);
        _bus.set_loss(0);
        for (int i = 0; i < 4; ++i, step(20000))
            for (Test_node& n : _nodes) n.send(message(0xFF00, "x"));
        std::set<int> used;
        for (Test_node& n : _nodes)
            require(n.address() < 0 || used.insert(n.address()).second, "an address has one owner");
    }

private:
    void step(int ms) {
        _managed.clock.advance(ms);
        _managed.turn();
        _bus.process();
        for (Test_node& n : _nodes) n.received(), n.events();
        require(_bus.num_frames() + _managed.bus.num_frames() - _frames_before < 400 * ++_steps + 5000,
                "no message sets off an endless exchange");
    }
    void arrived(const JIN_message& m) {
        _monitor.take(m, _now);
        _managed.bus.inject(m);
        _bus.inject(m);
        step(5 + m.priority * 50);
        for (unsigned a = 0; (a = _monitor.next(a)) < JIN::no_address; ++a) {
            uint32_t last = 0;
            require(_monitor.node(a)->active.size() <= Trouble_code_messages::max_received_codes, "a row is bounded");
            for (const auto& c : _monitor.node(a)->active) {
                require(c.code.valid() && last < c.code.key(), "codes name faults, in order, each once");
                last = c.code.key();
            }
        }
    }

    Managed& _managed;
    const uint64_t _frames_before;
    uint64_t _steps = 0;
    Trouble_code_monitor _monitor;
    Atime _now{false};
    JIN_assembler _assembler{[this](const JIN_message& m) { arrived(m); }};
    module_man _modules; // of this input alone: there are 31,742 ids
    JIN_memory_bus _bus;
    Test_node _nodes[4] = {{_bus, JIN_name(1), 0x80, reach, _modules},
                           {_bus, JIN_name(arbitrary | 100), 0x81, reach, _modules},
                           {_bus, JIN_name(arbitrary | 50), 0x81, reach, _modules},
                           {_bus, JIN_name(200), 0x80, reach, _modules}};
    bool _there = true;
};

void take_log(Traffic& traffic, const std::string& text) {
    std::istringstream lines(text);
    JIN_frame f;
    for (std::string line; std::getline(lines, line);)
        if (f.read(line)) traffic.take(f);
}

void take_frames(Traffic& traffic, Input& in) {
    for (JIN_frame f; !in.is_empty();) {
        const unsigned head = in.next();
        if ((head & 15) > 8) {
            traffic.take(head & 15, in);
            continue;
        }
        f.us += (head >> 4) * 100000;
        f.identifier = in.little_endian(4) & 0x1FFFFFFF;
        f.size = head & 15;
        for (unsigned i = 0; i < f.size; ++i) f.bytes[i] = in.next();
        traffic.take(f);
    }
}

} // namespace

void fuzz(Input in) {
    const uint8_t what = in.next();
    if (what == 'l' || what == 'f') {
        static Managed managed;
        const auto traffic = std::make_unique<Traffic>(managed);
        what == 'l' ? take_log(*traffic, in.rest()) : take_frames(*traffic, in);
        traffic->rest();
    }
    if (what != 'c') return;
    Trouble_code_table codes(30), again(30);
    from_text(in.rest(), codes);
    from_text(to_text(codes), again);
    require(to_text(codes) == to_text(again), "codes are written as they are read");
}
