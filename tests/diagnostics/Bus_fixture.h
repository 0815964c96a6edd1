// SPDX-License-Identifier: MIT
#pragma once
#include "diagnostics/Driven_manager.h"
#include "glue/diagnostics/Trouble_code_messages.h"
#include "glue/jin/JIN_inbox.h"
#include "glue/jin/JIN_memory_bus.h"
#include "support/bytes.h"
#include "support/test.h"

/// A bus with the manager's node at address 128 and a terminal at 38, which writes down what it gets.
class Bus_fixture : public testing::Test {
protected:
    static constexpr unsigned own = 0x80, terminal_address = 0x26;

    Bus_fixture() { run(500); } // all addresses are claimed

    static JIN_name name(unsigned number) { return JIN_name().set_arbitrary_address(true).set_identity_number(number); }

    /// Let time pass in steps of 10 ms.
    void run(int ms) {
        for (; ms > 0; ms -= 10) {
            clock.advance(10);
            now += 10;
            turn();
        }
    }
    void turn() {
        for (int i = 0; i < 3; ++i) { // what is answered arrives as well
            bus.process();
            if (manager) manager->turn();
        }
        bus.process();
        JIN_grow_message m;
        while (inbox.receive(m)) {
            got.push_back(hex(m));
            const std::string to = m.destination == JIN::global ? "all" : std::to_string(m.destination);
            log.push_back(std::to_string(now - since) + " " + std::to_string(m.pgn) + " " + to + ": " + got.back());
        }
    }
    void begin(Trouble_code_messages::Mode mode = Trouble_code_messages::Mode::iso, unsigned max_codes = 500) {
        manager.reset();
        manager = std::make_unique<Driven_manager>(&node, mode, max_codes);
        turn();
        restart();
    }
    void restart() {
        log.clear();
        got.clear();
        since = now;
    }
    /// What came since the last call, one line each: time since then [ms], PGN, receiver, bytes.
    std::string lines() {
        std::string all;
        for (const std::string& line : log) all += line + "\n";
        restart();
        return all;
    }
    /// The terminal, or with `from` a stranger, sends.
    void send(uint32_t pgn, const std::string& text, unsigned to = own, int from = -1) {
        Bytes bytes(text);
        const Binary_message view = bytes.view();
        JIN_message m(pgn, view.data, view.size, static_cast<uint8_t>(to));
        if (from >= 0) {
            m.source = static_cast<uint8_t>(from);
            bus.inject(m);
        } else {
            ASSERT_EQ(terminal.send(m), JIN_stack::taken);
        }
        turn();
    }
    static std::string request_of(uint32_t pgn) {
        unsigned char bytes[3];
        Binary_message m(bytes, 3);
        Trouble_code_messages::build_request(m, pgn);
        return hex(m);
    }

    Manual_clock clock{1700000000};
    JIN_memory_bus bus;
    JIN_memory_bus::Node node{bus, Diner_info_list::get(), name(1), own};
    JIN_memory_bus::Node terminal{bus, Diner_info_list::get(), name(2), terminal_address};
    JIN_inbox inbox{terminal, nullptr, {}, 200000};
    std::unique_ptr<Driven_manager> manager;
    std::vector<std::string> log, got;
    int now = 0, since = 0; // [ms]
};
