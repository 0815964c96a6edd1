// SPDX-License-Identifier: MIT
// A controller tells its trouble codes on a bus, and a terminal shows them. Both are nodes of a bus in memory; on a CAN
// interface the controller's node would be a JIN_socket_stack.
//
// Prints:
//     controller has address 128
//     it is a Field controller
//     SPN 1234 FMI 5 current too low or open circuit, 1 times
//     codes now: 0, they were: 1
#include "glue/diagnostics/Diagnostics.h"
#include "glue/diagnostics/Isobus_diagnostics.h"
#include "glue/diagnostics/Trouble_code_monitor.h"
#include "glue/diagnostics/Trouble_code_text.h"
#include "glue/diner/Diner_info_list.h"
#include "glue/jin/JIN_inbox.h"
#include "glue/jin/JIN_memory_bus.h"
#include <cstdio>

namespace {

using namespace Trouble_code_messages;

/// Hears what nodes say about themselves.
class Terminal final : public Diner::Protection {
public:
    explicit Terminal(JIN_stack& stack)
        : _stack(stack), _inbox(stack, &waiter, {pgn_DM1, pgn_DM2, Identification::pgn_product}) {
        init(Diner_info_list::get(), Descriptor("TERMINAL", 1));
        start();
    }
    ~Terminal() override { terminate(true); }

    void ask(uint32_t pgn, uint8_t address) {
        unsigned char bytes[3];
        JIN_message m(JIN::pgn_request, bytes, sizeof bytes, address);
        build_request(m, pgn);
        while (_stack.send(m) == JIN_stack::busy) Atime::delay(10);
    }
    /// What it knows of a node, once that is as it should be.
    template <class Condition>
    Trouble_code_monitor::Node wait_for(uint8_t address, Condition condition) {
        for (;; Atime::delay(10)) {
            lock(-1);
            const auto* row = _monitor.node(address);
            const auto node = row ? *row : Trouble_code_monitor::Node();
            unlock();
            if (condition(node)) return node;
        }
    }

private:
    void handle_event(waiter_event&) override {
        while (_inbox.receive(_message)) _monitor.take(_message, Atime::now());
    }
    void handle_timeout(Timeout&) override {}

    JIN_stack& _stack;
    JIN_inbox _inbox;
    JIN_grow_message _message;
    Trouble_code_monitor _monitor;
};

} // namespace

int main() {
    JIN_memory_bus bus;
    bus.start();
    module_man& modules = Diner_info_list::get();
    JIN_name name;
    name.set_arbitrary_address(true).set_industry_group(2).set_function(130).set_identity_number(1);
    JIN_memory_bus::Node node(bus, modules, name, 128);
    JIN_memory_bus::Node other(bus, modules, JIN_name(name).set_identity_number(2), 38);

    Diagnostics manager("FAULT");
    manager.init(modules, nullptr, 0);
    manager.attach(node); // ISO 11783; SAE J1939 with Mode::j1939
    manager.start();
    Isobus_diagnostics isobus(manager);
    isobus.set_product("FC-1", "", "Field controller");

    Terminal terminal(other);
    uint8_t address;
    while (!node.address(address)) Atime::delay(10);
    printf("controller has address %d\n", int{address});
    terminal.ask(Identification::pgn_product, address);
    const auto asked = terminal.wait_for(address, [](const auto& n) { return n.product.size() == 3; });
    printf("it is a %s\n", asked.product[2].c_str());

    // From any thread; nothing is waited for.
    manager.set_active(1234, 5);
    const auto faulty = terminal.wait_for(address, [](const auto& n) { return !n.active.empty(); });
    const Trouble_code code = faulty.active[0].code;
    printf("SPN %u FMI %d %s, %d times\n", code.spn, int{code.fmi}, failure_mode_text(code.fmi), int{code.count});

    manager.set_inactive(1234, 5);
    terminal.wait_for(address, [](const auto& n) { return n.active.empty(); });
    terminal.ask(pgn_DM2, address);
    const auto mended = terminal.wait_for(address, [](const auto& n) { return n.has_DM2; });
    printf("codes now: %zu, they were: %zu\n", mended.active.size(), mended.previous.size());
    return 0;
}
