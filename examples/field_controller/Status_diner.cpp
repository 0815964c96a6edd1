// SPDX-License-Identifier: MIT
#include "Status_diner.h"
#include "Machine_codes.h"
#include "glue/diner/Buffered_logger.h"
#include <cstdio>

Status_diner::Status_diner(Machine_store& store, Machine_settings& settings, Fault_history& faults, bool quiet,
                           bool keep_track)
    : _store(store)
    , _settings(settings)
    , _faults(faults)
    , _quiet(quiet)
    , _keep_track(keep_track)
    , _position(store.position_range()) {
    _tick.period = period_ms;
}

Status_diner::~Status_diner() {
    _settings.limits.satellites.autounreg_waiter(&waiter, false);
    {
        const std::lock_guard<Mutex> guard(_store.head);
        _position.autounreg(&waiter);
    }
    terminate(true);
}

void Status_diner::init(module_man& modules) {
    init(modules, Descriptor("STATUS", 3));
    _settings.limits.satellites.autoreg_waiter(&waiter, false);
    update_limit();
    const std::lock_guard<Mutex> guard(_store.head);
    _position.autoreg(&waiter);
}

unsigned Status_diner::wake_ups() const {
    lock(-1);
    const unsigned n = _wake_ups;
    unlock();
    return n;
}

bool Status_diner::write_plot(const std::string& path) const {
    lock(-1);
    const bool written = _plot.write(path.c_str());
    unlock();
    return written;
}

void Status_diner::handle_event(waiter_event& event) {
    if (_settings.limits.satellites.is_event(event)) {
        update_limit();
        Buffered_logger::log(
            ("settings: the status diner learns of " + std::to_string(_least_satellites) + " satellites\n").c_str());
    }
    if (!_store.head.is_event(event, CDS::reg_access)) return;
    ++_wake_ups;
    _moved = true;
    look_for_faults(_store.get());
}

void Status_diner::update_limit() {
    const std::lock_guard<Machine_settings> guard(_settings);
    _least_satellites = _settings.limits.satellites.get();
}

/// Record a fault when it begins; the bus is told again and again, since the manager may have been restarted.
void Status_diner::report(bool wrong, bool& known, Fault_history::Source source, Fault_history::Fault fault, int detail,
                          const char* what, const Trouble_code& code) {
    _faults.set(code, wrong);
    if (wrong && !known) {
        _faults.log(source, static_cast<unsigned short>(detail), fault);
        Buffered_logger::log((std::string("fault: ") + what + "\n").c_str());
        _plot.mark(what);
        ++_num_faults;
    }
    known = wrong;
}

void Status_diner::look_for_faults(const Machine_block& now) {
    const bool seen = now.satellites.locked[0] + now.satellites.locked[1] > 0;
    _had_satellites = _had_satellites || seen;
    _had_fix = _had_fix || now.quality.type != 0;
    if (!_had_fix) return; // nothing received yet
    _faults.set(Machine_codes::no_fix, now.quality.type == 0);
    if (_keep_track) _plot.add(now.position.lat, now.position.lon, now.quality.type);
    const int used = now.satellites.used[0] + now.satellites.used[1];
    // The first position comes before the satellites.
    report(_had_satellites && !seen, _antenna_open, Fault_history::antenna, Fault_history::open_circuit, used,
           "antenna open", Machine_codes::antenna_open);
    report(seen && used < _least_satellites, _too_few, Fault_history::satellites, Fault_history::too_few, used,
           "too few satellites", Machine_codes::too_few_satellites);
    report(now.quality.type != Track_plot::fixed, _not_fixed, Fault_history::corrections, Fault_history::too_old,
           now.quality.type, "corrections too old", Machine_codes::corrections_too_old);
}

void Status_diner::handle_timeout(Timeout&) {
    const Machine_block now = _store.get();
    if (!_moved || _quiet || ++_seconds < now.display.every) return;
    _moved = false;
    _seconds = 0;
    constexpr double degrees = 180 / 3.141592653589793;
    printf("status: lat %.7f lon %.7f height %.2f m, %s (%.2f m), satellites %d GPS and %d GLONASS, faults %u\n",
           now.position.lat * degrees, now.position.lon * degrees, now.position.hgt,
           Track_plot::fix_name(now.quality.type).c_str(), static_cast<double>(now.quality.sigma),
           now.satellites.used[0], now.satellites.used[1], _num_faults);
}
