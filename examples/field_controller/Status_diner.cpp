// SPDX-License-Identifier: MIT
#include "Status_diner.h"
#include <cstdio>

Status_diner::Status_diner(Machine_store& store, bool quiet)
    : _store(store), _quiet(quiet), _position(store.position_range()) {
    _tick.period = period_ms;
}

Status_diner::~Status_diner() {
    {
        const std::lock_guard<Mutex> guard(_store.head);
        _position.autounreg(&waiter);
    }
    terminate(true);
}

void Status_diner::init(module_man& modules) {
    init(modules, nullptr, Descriptor("STATUS", 3), 0, 256, false, false);
    const std::lock_guard<Mutex> guard(_store.head);
    _position.autoreg(&waiter);
}

unsigned Status_diner::wake_ups() const {
    lock(-1);
    const unsigned n = _wake_ups;
    unlock();
    return n;
}

void Status_diner::handle_event(waiter_event& event) {
    if (!_store.head.is_event(event, CDS::reg_access)) return;
    ++_wake_ups;
    _moved = true;
}

void Status_diner::handle_timeout(Timeout&) {
    if (!_moved || _quiet) return;
    _moved = false;
    const Machine_block now = _store.get();
    constexpr double degrees = 180 / 3.141592653589793;
    printf("status: lat %.7f lon %.7f height %.2f m, fix %d (%.2f m), satellites %d GPS and %d GLONASS\n",
           now.position.lat * degrees, now.position.lon * degrees, now.position.hgt, now.quality.type,
           static_cast<double>(now.quality.sigma), now.satellites.used[0], now.satellites.used[1]);
}
