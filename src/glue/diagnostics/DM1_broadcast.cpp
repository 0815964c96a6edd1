// SPDX-License-Identifier: MIT
#include "glue/diagnostics/DM1_broadcast.h"
#include "glue/diner/Diner.h"

using namespace Trouble_code_messages;

DM1_broadcast::DM1_broadcast(Diner& diner, JIN_stack& node, Trouble_codes& codes, Mode mode)
    : Transmission(diner, node, pgn_DM1, longest_DM1), _diner(diner), _codes(codes), _mode(mode) {}

/// There is something to tell: codes, or that there are none any more.
bool DM1_broadcast::wanted() {
    if (sent() != _counted_sent) {
        _counted_sent = sent();
        _told = _built;
    }
    return _mode == Mode::j1939 || _told || _codes.count(Trouble_code_table::active) > 0;
}

void DM1_broadcast::tell() {
    if (_suspended || !wanted()) return;
    _told_at = Atime::now();
    request();
}

void DM1_broadcast::update() {
    if (_suspended && !_diner.submitted(_end)) resume(); // a stop of the diner has dropped it
    if (_codes.take_urgent() || is_due()) tell();
    arm();
}

void DM1_broadcast::arm() {
    if (!wanted() && _codes.count(Trouble_code_table::cleared) == 0) {
        _diner.remove_timeout(_tick);
    } else if (!_diner.submitted(_tick)) {
        _tick.period = 0;
        _diner.submit_timeout(_tick, period_ms);
    }
}

bool DM1_broadcast::handle(Timeout& t) {
    if (&t == &_end) {
        resume();
    } else if (&t == &_tick) {
        _codes.return_cleared();
        const int since = Atime::now() - _told_at;
        if (since < 0 || since >= just_told_ms) {
            if (!_suspended) _codes.told();
            tell();
        }
        // From the expiry on, so that a late pass does not move the ticks; one that was missed is not made up for.
        const Atime next = t.expiry + period_ms;
        if (wanted()) _diner.submit_timeout(_tick, next > Atime::now() ? next : Atime::from_now(period_ms));
    } else {
        return Transmission::handle(t);
    }
    return true;
}

bool DM1_broadcast::build(JIN_grow_message& m, uint8_t) {
    if (_suspended || !wanted() || !m.resize(longest_DM1)) return _built = false;
    _codes.build_DM(m, Trouble_code_table::active, _mode);
    Trouble_code first;
    _built = Msg_DM(m).code(0, first);
    return m.size > 0;
}

void DM1_broadcast::take_DM13(const JIN_message& m) {
    const Msg_DM13 dm13(m);
    if (!dm13.valid()) return;
    switch (dm13.this_link()) {
    case Msg_DM13::start:
        if (_suspended) resume();
        break;
    case Msg_DM13::stop:
        _timed = dm13.duration() > 0;
        suspend(_timed ? static_cast<int>(dm13.duration()) * 1000 : hold_ms);
        break;
    case Msg_DM13::leave:
        if (_suspended && !_timed && dm13.hold_signal() != Msg_DM13::hold_not_available) suspend(hold_ms);
        break;
    }
}

void DM1_broadcast::suspend(int ms) {
    _suspended = true;
    withdraw();
    _diner.submit_timeout(_end, ms);
}

void DM1_broadcast::resume() {
    _suspended = false;
    _diner.remove_timeout(_end);
    tell();
}
