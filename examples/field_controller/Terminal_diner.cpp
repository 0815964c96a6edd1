// SPDX-License-Identifier: MIT
#include "Terminal_diner.h"
#include "bus_monitor/Bus_report.h"

using namespace Identification;
using namespace Trouble_code_messages;

Terminal_diner::Terminal_diner(JIN_stack& stack)
    : _stack(stack), _inbox(stack, &waiter, {JIN::pgn_address_claimed, pgn_DM1, pgn_product, pgn_software}) {
    _tick.period = period_ms;
}

Terminal_diner::~Terminal_diner() { terminate(true); }

void Terminal_diner::init(module_man& modules) { init(modules, Descriptor("TERMINAL", 4)); }

void Terminal_diner::handle_event(waiter_event&) {
    while (_inbox.receive(_message)) _monitor.take(_message, Atime::now());
}

/// A question at a time, until it is answered.
void Terminal_diner::handle_timeout(Timeout&) {
    for (unsigned a = 0; (a = _monitor.next(a)) < JIN::no_address; ++a) {
        const auto& node = *_monitor.node(a);
        if (!node.product.empty() && !node.software.empty()) continue;
        unsigned char bytes[3];
        JIN_message question(JIN::pgn_request, bytes, sizeof bytes, static_cast<uint8_t>(a));
        build_request(question, node.product.empty() ? pgn_product : pgn_software);
        _stack.send(question); // a busy one comes again with the next tick
        return;
    }
}

std::string Terminal_diner::view() const {
    lock(-1);
    const std::string table = Bus_report::table(_monitor, Atime::now());
    unlock();
    return table;
}
