// SPDX-License-Identifier: MIT
#include "glue/diagnostics/Diagnostics_bus.h"
#include "glue/diagnostics/Request_answers.h"
#include "glue/diner/Diner.h"

using namespace Trouble_code_messages;
using Table = Trouble_code_table;

Diagnostics_bus::Diagnostics_bus(Diner& diner, JIN_stack& stack, Trouble_codes& codes, Request_answers& answers,
                                 Mode mode)
    : _diner(diner)
    , _stack(stack)
    , _codes(codes)
    , _answers(answers)
    , _inbox(stack, &diner.waiter, {JIN::pgn_request, pgn_DM13, pgn_DM22})
    , _broadcast(diner, stack, codes, mode) {
    stack.register_waiter(&diner.waiter);
    const auto list = [this, mode](Table::State state) {
        return [this, mode, state](JIN_grow_message& m) {
            if (!m.resize(longest_DM1)) return false;
            _codes.build_DM(m, state, mode);
            return true;
        };
    };
    const auto clear = [this](Table::State state) {
        return [this, state](JIN_grow_message&) {
            _codes.clear(state);
            return true;
        };
    };
    _answers.set(pgn_DM1, {Request_answer::data, list(Table::active)});
    _answers.set(pgn_DM2, {Request_answer::data, list(Table::previous)});
    _answers.set(pgn_DM3, {Request_answer::action, clear(Table::previous)});
    _answers.set(pgn_DM11, {Request_answer::action, clear(Table::active)});
    _answers.set(JIN::pgn_address_claimed, {Request_answer::elsewhere, nullptr}); // the stack
}

Diagnostics_bus::~Diagnostics_bus() {
    _stack.deregister_waiter(&_diner.waiter);
    for (const uint32_t pgn : {uint32_t{pgn_DM1}, uint32_t{pgn_DM2}, uint32_t{pgn_DM3}, uint32_t{pgn_DM11}})
        _answers.remove(pgn);
}

uint8_t Diagnostics_bus::address() const {
    uint8_t own = JIN::no_address;
    _stack.address(own);
    return own;
}

void Diagnostics_bus::update() {
    receive(); // a stop of the diner has dropped the events
    if (_violated_spn && !_diner.submitted(_violation_end)) _diner.submit_timeout(_violation_end, violation_ms);
    _broadcast.update();
    pump();
}

bool Diagnostics_bus::handle(const waiter_event& e) {
    if (e.module_id != _stack.module_id()) return false;
    if (e.id == JIN_stack::event_violation) violated();
    return true;
}

bool Diagnostics_bus::handle(Timeout& t) {
    if (&t == &_violation_end) {
        end_violation();
        return true;
    }
    return &t == &_retry || _broadcast.handle(t);
}

void Diagnostics_bus::receive() {
    while (_inbox.receive(_received)) {
        if (_received.pgn == JIN::pgn_request) _answers.request(_received);
        if (_received.pgn == pgn_DM13) _broadcast.take_DM13(_received);
        if (_received.pgn == pgn_DM22) take_DM22(_received);
    }
}

void Diagnostics_bus::take_DM22(const JIN_message& m) {
    const Msg_DM22 request(m);
    if (!request.valid() || !request.is_request()) return;
    if (m.destination == JIN::global || m.source > JIN::highest_unicast) return;
    const Table::State state = request.control() == Msg_DM22::clear_active ? Table::active : Table::previous;
    const Msg_DM22::Reason reason = _codes.clear(request.code(), state);
    const unsigned outcome = reason == Msg_DM22::none ? Msg_DM22::done : Msg_DM22::refused;
    unsigned char bytes[8];
    Binary_message answer(bytes, sizeof bytes);
    build_DM22(answer, static_cast<uint8_t>(request.control() + outcome), reason, request.code());
    _answers.send(pgn_DM22, m.source, bytes);
}

void Diagnostics_bus::violated() {
    const uint8_t own = address();
    if (own > JIN::highest_unicast) return;
    if (_violated_spn != spn_violation + own) end_violation();
    _violated_spn = spn_violation + own;
    _codes.set_active(_violated_spn, fmi_violation);
    _diner.submit_timeout(_violation_end, violation_ms);
}

void Diagnostics_bus::end_violation() {
    if (_violated_spn) _codes.set_inactive(_violated_spn, fmi_violation);
    _violated_spn = 0;
}

void Diagnostics_bus::pump() {
    if (_answers.pump(_stack))
        _diner.remove_timeout(_retry);
    else if (!_diner.submitted(_retry))
        _diner.submit_timeout(_retry, retry_ms);
}
