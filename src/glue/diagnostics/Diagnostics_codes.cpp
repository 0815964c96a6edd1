// SPDX-License-Identifier: MIT
// The trouble codes of the manager; its history is in Diagnostics.cpp.
#include "glue/NV_store/Safe_file.h"
#include "glue/diagnostics/Diagnostics.h"
#include "glue/diagnostics/Diagnostics_bus.h"
#include "glue/diagnostics/Request_answers.h"
#include "util/Debug_print.h"
#include <utility>

using NV_store::Safe_result;
using Table = Trouble_code_table;

namespace {
constexpr unsigned changes_in_a_pass = 16; ///< that are recorded before the manager looks at anything else
constexpr unsigned went_inactive = 0x80;   ///< in the high byte of a record's first word
} // namespace

bool Diagnostics::set_active(uint32_t spn, unsigned fmi, Lamp lamp) {
    const bool there = _codes.set_active(spn, fmi, lamp);
    if (there) wake();
    return there;
}

bool Diagnostics::set_inactive(uint32_t spn, unsigned fmi) {
    const bool was_there = _codes.set_inactive(spn, fmi);
    if (was_there) wake();
    return was_there;
}

void Diagnostics::clear_active() {
    _codes.clear(Table::active);
    wake();
}

void Diagnostics::clear_previous() {
    _codes.clear(Table::previous);
    wake();
}

/// Have the manager look at the codes. By a timeout rather than an event: that needs no room in the pool of events.
void Diagnostics::wake() {
    if (state.load(std::memory_order_acquire) == state_uninit || _awake.exchange(true)) return;
    submit_timeout(_pass, Atime::now());
}

/// Everything that follows from the codes as they are. The bus goes first: the history may take its time.
void Diagnostics::pass() {
    _awake = false;
    if (_bus)
        _bus->update();
    else
        _codes.return_cleared();
    if (_codes.take_unsaved()) _unsaved = true;
    if (_unsaved && _codes_file && !submitted(_save)) submit_timeout(_save, save_ms);
    store_changes();
}

void Diagnostics::store_changes() {
    const uint8_t own = _bus ? _bus->address() : JIN::no_address;
    Trouble_codes::Change c;
    for (unsigned i = 0; i < changes_in_a_pass; ++i) {
        if (!_codes.take_change(c)) return;
        if (!_enabled) continue;
        const unsigned a = c.code.third_byte() | (c.code.count | (c.active ? 0 : went_inactive)) << 8;
        store(own, static_cast<unsigned short>(a), static_cast<unsigned short>(c.code.spn), c.when);
    }
    wake();
}

// ---- kept over a power cut

Safe_result Diagnostics::keep_codes_in(const char* path) {
    std::string text;
    _codes_file = std::make_unique<NV_store::Safe_text>(path);
    const Safe_result result = _codes_file->load(text);
    _codes.load(text);
    if (!NV_store::is_good(result)) tell("", result);
    if (result == Safe_result::damaged || result == Safe_result::unreadable)
        _codes.set_active(spn_memory_lost, fmi_memory_lost, {}, true);
    return result;
}

void Diagnostics::tell(const char* what, Safe_result result) const {
    const std::string& reason = _codes_file->reason();
    Debug_print::dprint("Trouble codes %s: %s%s%s%s\n", _codes_file->path().c_str(), what, NV_store::to_text(result),
                        reason.empty() ? "" : ": ", reason.c_str());
}

Safe_result Diagnostics::save_codes() {
    const Held held(*this);
    _unsaved = _codes.take_unsaved() || _unsaved;
    return save();
}

Safe_result Diagnostics::save() {
    if (!_codes_file || !_unsaved) return Safe_result::nothing_to_save;
    _codes.take_unsaved(); // what changed until now is in the text
    const Safe_result result = _codes_file->save(_codes.text());
    _unsaved = result != Safe_result::saved;
    if (!_unsaved) {
        remove_timeout(_save);
    } else {
        submit_timeout(_save, save_retry_ms);
        if (!_save_failed) tell("not saved, ", result);
    }
    _save_failed = _unsaved;
    return result;
}

// ---- bus

void Diagnostics::attach(JIN_stack& stack, Trouble_code_messages::Mode mode) {
    const Held held(*this);
    _bus = std::make_unique<Diagnostics_bus>(*this, stack, _codes, *_answers, mode);
}

bool Diagnostics::set_answer(uint32_t pgn, Request_answer answer) {
    const Held held(*this);
    return _answers->set(pgn, std::move(answer));
}

void Diagnostics::remove_answer(uint32_t pgn) {
    const Held held(*this);
    _answers->remove(pgn);
}

void Diagnostics::set_refuses_others(bool on) {
    const Held held(*this);
    _answers->set_refuses_others(on);
}
