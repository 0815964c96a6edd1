// SPDX-License-Identifier: MIT
// Two nodes of a CAN bus: a pump tells its pressure, and a display shows it and asks for it. The bus is in memory; on
// `can_bus can0` the pump goes to a real one, until a key is pressed.
//
// Prints:
//     pressure 20 bar, from address 128
//     pressure 21 bar, from address 128
//     pressure 22 bar, asked for
//     pump at 128, display at 38
#include "glue/diner/Diner_info_list.h"
#include "glue/diner/Diner_protection.h"
#include "glue/jin/JIN_inbox.h"
#include "glue/jin/JIN_memory_bus.h"
#include "glue/jin/JIN_socket_stack.h"
#include "glue/jin/JIN_transmission.h"
#include "util/Semaphore.h"
#include <cstdio>

namespace {

constexpr uint32_t pgn_pressure = 0xFF10; // one of those that makers may use as they like

/// What is sent. Built at the instant of sending: a bus that was busy gets what is true then.
class Pressure : public JIN::Transmission<JIN_grow_message> {
public:
    Pressure(Diner& diner, JIN_stack& stack) : Transmission(diner, stack, pgn_pressure) {}

private:
    bool build(JIN_grow_message& m, uint8_t) override {
        return m.append_uint16_le(static_cast<uint16_t>(20 + sent())) && m.resize(8); // [bar]
    }
};

class Pump : public Diner::Protection {
public:
    explicit Pump(JIN_stack& s) : stack(s), inbox(s, &waiter, {JIN::pgn_request}), pressure(*this, s) {
        init(Diner_info_list::get(), Descriptor("PUMP", 1));
        stack.register_waiter(&waiter); // for the address, and to be told when there is room
        pressure.set_period(100);       // [ms]
        start();
    }
    ~Pump() override {
        stack.deregister_waiter(&waiter);
        terminate(true);
    }

private:
    void handle_event(waiter_event& event) override {
        pressure.handle(event);
        uint32_t pgn;
        for (JIN_grow_message m; inbox.receive(m);) {
            if (m.get_requested_pgn(pgn) && pgn == pgn_pressure) pressure.request();
        }
    }
    void handle_timeout(Timeout& timeout) override { pressure.handle(timeout); }
    using Diner::handle_timeout;

    JIN_stack& stack;
    JIN_inbox inbox;
    Pressure pressure;
};

class Display : public Diner::Protection {
public:
    explicit Display(JIN_stack& s) : stack(s), inbox(s, &waiter, {pgn_pressure}) {
        init(Diner_info_list::get(), Descriptor("DISPLAY", 2));
        start();
    }
    ~Display() override { terminate(true); }

    Semaphore seen; ///< three messages

private:
    void handle_event(waiter_event&) override {
        while (inbox.receive(message) && ++count <= 3) {
            printf("pressure %u bar, ", message.get_uint16_le(0));
            printf(count < 3 ? "from address %u\n" : "asked for\n", message.source);
            if (count == 2) ask();
            if (count == 3) seen.release();
        }
    }
    void handle_timeout(Timeout&) override {}
    using Diner::handle_timeout;

    void ask() {
        JIN_grow_message request(JIN::pgn_request, 3);
        request.resize(3);
        request.set_uint24_le(0, pgn_pressure);
        stack.send(request);
    }

    JIN_stack& stack;
    JIN_inbox inbox;
    JIN_grow_message message;
    int count = 0;
};

} // namespace

int main(int argc, char** argv) {
    Diner_info_list& modules = Diner_info_list::get();
    JIN_name name; // what the pump is; of several, the smaller identity number wins an address
    name.set_arbitrary_address(true).set_industry_group(2).set_function(130).set_manufacturer_code(2000);
    name.set_identity_number(4711);
    if (argc > 1) {
        JIN_socket_stack node(modules, argv[1], name, 128); // 128: the address that it would like to have
        Pump pump(node);
        node.start();
        getchar();
        return 0;
    }
    JIN_memory_bus bus;
    bus.start();
    JIN_memory_bus::Node display_node(bus, modules, JIN_name().set_identity_number(1), 38);
    Display display(display_node);
    JIN_memory_bus::Node pump_node(bus, modules, name, 128);
    Pump pump(pump_node);
    display.seen.acquire();
    uint8_t at_pump = 0, at_display = 0;
    while (!pump_node.address(at_pump) || !display_node.address(at_display)) Atime::delay(10);
    printf("pump at %u, display at %u\n", at_pump, at_display);
}
