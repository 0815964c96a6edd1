// SPDX-License-Identifier: MIT
#include "glue/diagnostics/Trouble_codes.h"
#include "glue/diagnostics/Trouble_code_text.h"
#include <algorithm>

using namespace Trouble_code_messages;
using Table = Trouble_code_table;

Trouble_codes::Trouble_codes(unsigned capacity) : _table(capacity), _changes(std::make_unique<Change[]>(max_changes)) {}

bool Trouble_codes::set_active(uint32_t spn, unsigned fmi, Lamp lamp, bool until_cleared) {
    if (!Trouble_code::valid(spn, fmi)) return false;
    const Atime now = Atime::now();
    const Scoped_lock held(_mutex);
    Entry* e = _table.find(Trouble_code::key(spn, fmi));
    if (!e) e = _table.add(Trouble_code::key(spn, fmi), Table::previous);
    if (!e) {
        ++_refused;
        return false;
    }
    e->lamp = lamp;
    e->until_cleared = until_cleared;
    if (e->state() == Table::previous) activate(*e, now);
    return true;
}

bool Trouble_codes::set_inactive(uint32_t spn, unsigned fmi) {
    if (!Trouble_code::valid(spn, fmi)) return false;
    const Atime now = Atime::now();
    const Scoped_lock held(_mutex);
    Entry* const e = _table.find(Trouble_code::key(spn, fmi));
    if (!e || e->state() == Table::previous) return false;
    _unsaved = true;
    if (e->state() == Table::cleared) {
        _table.erase(*e);
    } else {
        _table.move(*e, Table::previous);
        changed(*e, now, false);
    }
    return true;
}

void Trouble_codes::clear(State which) {
    const Atime now = Atime::now();
    const Scoped_lock held(_mutex);
    while (Entry* e = _table.newest(which)) forget(*e, now);
}

Msg_DM22::Reason Trouble_codes::clear(const Trouble_code& code, State which) {
    const Atime now = Atime::now();
    const Scoped_lock held(_mutex);
    Entry* const e = code.valid() ? _table.find(code.key()) : nullptr;
    if (!e || e->state() == Table::cleared) return Msg_DM22::unknown_code;
    if (e->state() != which) return which == Table::active ? Msg_DM22::not_active : Msg_DM22::not_previously_active;
    forget(*e, now);
    return Msg_DM22::none;
}

void Trouble_codes::return_cleared() {
    const Atime now = Atime::now();
    const Scoped_lock held(_mutex);
    while (Entry* e = _table.newest(Table::cleared)) activate(*e, now);
}

void Trouble_codes::activate(Entry& e, const Atime& now) {
    if (e.first == Atime(false)) e.first = now;
    e.count = static_cast<uint8_t>(std::min<unsigned>(e.count + 1u, Trouble_code::max_count));
    _table.move(e, Table::active);
    changed(e, now, true);
}

/// Erase a code; it comes back later if its condition is set.
void Trouble_codes::forget(Entry& e, const Atime& now) {
    _unsaved = true;
    if (e.state() == Table::previous) return _table.erase(e);
    changed(e, now, false);
    if (e.until_cleared) return _table.erase(e);
    e.count = 0;
    e.first = Atime(false);
    _table.move(e, Table::cleared);
}

void Trouble_codes::changed(Entry& e, const Atime& now, bool active) {
    e.last = now;
    _unsaved = true;
    // A clock set back must not keep it quiet.
    const int since = now - e.announced;
    if (since < 0 || since >= announce_ms) {
        e.announced = now;
        _urgent = true;
    }
    if (_num_changes == max_changes) {
        ++_changes_lost;
        return;
    }
    Change& c = _changes[(_first_change + _num_changes++) % max_changes];
    c.when = now;
    c.code = e.code();
    c.active = active;
}

unsigned Trouble_codes::count(State s) const {
    const Scoped_lock held(_mutex);
    return _table.count(s);
}

Trouble_codes::Info Trouble_codes::info_of(const Entry& e) {
    Info info;
    info.code = e.code();
    info.lamp = e.lamp;
    info.state = e.state();
    info.first = e.first;
    info.last = e.last;
    return info;
}

bool Trouble_codes::get(unsigned place, Info& info) const {
    const Scoped_lock held(_mutex);
    const Entry* const e = _table[place];
    if (e) info = info_of(*e);
    return e != nullptr;
}

bool Trouble_codes::find(uint32_t spn, unsigned fmi, Info& info) const {
    const Scoped_lock held(_mutex);
    const Entry* const e = Trouble_code::valid(spn, fmi) ? _table.find(Trouble_code::key(spn, fmi)) : nullptr;
    if (e) info = info_of(*e);
    return e != nullptr;
}

uint32_t Trouble_codes::refused() const {
    const Scoped_lock held(_mutex);
    return _refused;
}

uint32_t Trouble_codes::changes_lost() const {
    const Scoped_lock held(_mutex);
    return _changes_lost;
}

bool Trouble_codes::take_change(Change& c) {
    const Scoped_lock held(_mutex);
    if (_num_changes == 0) return false;
    c = _changes[_first_change];
    _first_change = (_first_change + 1) % max_changes;
    --_num_changes;
    return true;
}

bool Trouble_codes::take_urgent() {
    const Scoped_lock held(_mutex);
    return std::exchange(_urgent, false);
}

void Trouble_codes::told() {
    const Atime now = Atime::now();
    const Scoped_lock held(_mutex);
    _urgent = false;
    for (const State s : {Table::active, Table::previous})
        for (Entry* e = _table.newest(s); e && now - e->last <= announce_ms; e = e->older())
            if (e->last > e->announced) e->announced = now;
}

bool Trouble_codes::take_unsaved() {
    const Scoped_lock held(_mutex);
    return std::exchange(_unsaved, false);
}

void Trouble_codes::build_DM(Binary_message& m, State state, Mode mode) const {
    const Scoped_lock held(_mutex);
    Trouble_code_messages::build_DM(m, _table, state, mode);
}

std::string Trouble_codes::text() const {
    const Scoped_lock held(_mutex);
    return to_text(_table);
}

unsigned Trouble_codes::load(const std::string& text) {
    const Scoped_lock held(_mutex);
    return from_text(text, _table);
}
