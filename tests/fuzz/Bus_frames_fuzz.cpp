// SPDX-License-Identifier: MIT
// What comes from a CAN bus: frames through the assembler into the monitor and to a manager on the bus. "l" and lines
// of a log; "f" and frames of a length, an identifier and the bytes; "c" and a file of trouble codes.
#include "diagnostics/Driven_manager.h"
#include "fuzz/checks.h"
#include "glue/diagnostics/Isobus_diagnostics.h"
#include "glue/diagnostics/Trouble_code_monitor.h"
#include "glue/diagnostics/Trouble_code_text.h"
#include "glue/jin/JIN_assembler.h"
#include "glue/jin/JIN_frame.h"
#include "glue/jin/JIN_memory_bus.h"
#include "support/Manual_clock.h"
#include <sstream>

namespace {

struct Bus {
    Bus() {
        for (unsigned spn = 1; spn < 10; ++spn) manager.set_active(spn, 3);
        for (int i = 0; i < 100; ++i) step(10);
        uint8_t own;
        require(node.address(own) && own == 0x80, "the address is claimed");
    }
    void step(int ms) {
        clock.advance(ms);
        bus.process();
        manager.turn();
    }

    Manual_clock clock{1700000000};
    JIN_memory_bus bus;
    JIN_memory_bus::Node node{bus, Diner_info_list::get(), JIN_name(1), 0x80};
    Driven_manager manager{&node, Trouble_code_messages::Mode::iso, 20};
    Isobus_diagnostics isobus{manager};
};

class Listener {
public:
    Listener() { _bus.step(100000); } // what was said before is over
    void frame(uint32_t identifier, const void* bytes, unsigned n, int64_t ms) {
        _now.time = static_cast<int32_t>(ms / 1000);
        _assembler.frame(identifier, static_cast<const unsigned char*>(bytes), n, ms);
    }

private:
    void take(const JIN_message& m) {
        _monitor.take(m, _now);
        _bus.bus.inject(m);
        _bus.step(5);
        for (unsigned a = 0; (a = _monitor.next(a)) < JIN::no_address; ++a) {
            const auto& codes = _monitor.node(a)->active;
            require(codes.size() <= Trouble_code_messages::max_received_codes, "a row is bounded");
            for (size_t i = 0; i < codes.size(); ++i) {
                require(codes[i].code.valid(), "a code names a fault");
                require(i == 0 || codes[i - 1].code.key() < codes[i].code.key(), "in order, each once");
            }
        }
    }
    static Bus& the_bus() { // one for all inputs, since a diner's thread costs more than an input
        static Bus bus;
        return bus;
    }

    Bus& _bus = the_bus();
    Trouble_code_monitor _monitor;
    Atime _now{false};
    JIN_assembler _assembler{[this](const JIN_message& m) { take(m); }};
};

void fuzz_log(const std::string& text) {
    Listener listener;
    std::istringstream lines(text);
    JIN_frame f, again;
    for (std::string line; std::getline(lines, line);) {
        if (!f.read(line)) continue;
        require(again.read(f.to_line("can0")) && again.us == f.us && again.identifier == f.identifier &&
                    again.size == f.size && memcmp(again.bytes, f.bytes, f.size) == 0,
                "a frame is written as it is read");
        listener.frame(f.identifier, f.bytes, f.size, f.us / 1000);
    }
}

void fuzz_frames(Input in) {
    Listener listener;
    for (int64_t ms = 0; !in.is_empty();) {
        const unsigned head = in.next();
        const uint32_t identifier = in.little_endian(4) & 0x1FFFFFFF;
        const std::string bytes = in.next(std::min(head & 15, 8u));
        listener.frame(identifier, bytes.data(), static_cast<unsigned>(bytes.size()), ms += (head >> 4) * 100);
    }
}

void fuzz_codes(const std::string& text) {
    Trouble_code_table codes(30), again(30);
    from_text(text, codes);
    from_text(to_text(codes), again);
    require(to_text(codes) == to_text(again), "codes are written as they are read");
}

} // namespace

void fuzz(Input in) {
    const uint8_t what = in.next();
    if (what == 'l') fuzz_log(in.rest());
    if (what == 'f') fuzz_frames(in);
    if (what == 'c') fuzz_codes(in.rest());
}
