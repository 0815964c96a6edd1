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
#include <cstring>

namespace {

class Bus {
public:
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
    void take(const JIN_message& m) {
        bus.inject(m);
        step(5);
    }

    Manual_clock clock{1700000000};
    JIN_memory_bus bus;
    JIN_memory_bus::Node node{bus, Diner_info_list::get(), JIN_name(1), 0x80};
    Driven_manager manager{&node, Trouble_code_messages::Mode::iso, 20};
    Isobus_diagnostics isobus{manager};
};

/// One for all inputs, since a diner's thread costs more than an input.
Bus& the_bus() {
    static Bus bus;
    return bus;
}

class Listener {
public:
    Listener() { _bus.step(100000); } // what was said before is over
    void frame(uint32_t identifier, const unsigned char* bytes, unsigned n, int64_t ms) {
        _now.time = static_cast<int32_t>(ms / 1000);
        _assembler.frame(identifier, bytes, n, ms);
    }

private:
    void take(const JIN_message& m) {
        _monitor.take(m, _now);
        _bus.take(m);
        for (unsigned a = 0; (a = _monitor.next(a)) < JIN::no_address; ++a) {
            const auto& codes = _monitor.node(a)->active;
            require(codes.size() <= Trouble_code_messages::max_received_codes, "a row is bounded");
            for (size_t i = 0; i < codes.size(); ++i) {
                require(codes[i].code.valid(), "a code names a fault");
                require(i == 0 || codes[i - 1].code.key() < codes[i].code.key(), "in order, each once");
            }
        }
    }

    Bus& _bus = the_bus();
    Trouble_code_monitor _monitor;
    Atime _now{false};
    JIN_assembler _assembler{[this](const JIN_message& m) { take(m); }};
};

void fuzz_log(const std::string& text) {
    Listener listener;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        JIN_frame f, again;
        if (f.read(text.substr(at, end - at))) {
            require(again.read(f.to_line("can0")) && again.us == f.us && again.identifier == f.identifier &&
                        again.size == f.size && memcmp(again.bytes, f.bytes, f.size) == 0,
                    "a frame is written as it is read");
            listener.frame(f.identifier, f.bytes, f.size, f.us / 1000);
        }
        at = end + 1;
    }
}

void fuzz_frames(const std::string& bytes) {
    Listener listener;
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
    int64_t ms = 0;
    for (size_t left = bytes.size(); left >= 5;) {
        const unsigned n = std::min<unsigned>(p[0] & 15, 8), pause = p[0] >> 4;
        if (left < 5 + n) break;
        const uint32_t identifier = p[1] | p[2] << 8 | p[3] << 16 | static_cast<uint32_t>(p[4] & 31) << 24;
        listener.frame(identifier, p + 5, n, ms += pause * 100);
        p += 5 + n;
        left -= 5 + n;
    }
}

void fuzz_codes(const std::string& text) {
    Trouble_code_table codes(30), again(30);
    from_text(text, codes);
    from_text(to_text(codes), again);
    require(to_text(codes) == to_text(again), "codes are written as they are read");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    be_quiet();
    if (size < 2) return 0;
    const std::string rest = text_of(data + 1, size - 1);
    if (data[0] == 'l') fuzz_log(rest);
    if (data[0] == 'f') fuzz_frames(rest);
    if (data[0] == 'c') fuzz_codes(rest);
    return 0;
}
