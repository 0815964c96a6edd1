// SPDX-License-Identifier: MIT
#include "glue/jin/JIN_transmission.h"
#include "glue/diner/Diner.h"

namespace JIN {

Transmission_base::Transmission_base(Diner& diner, JIN_stack& s) : stack(s), _diner(diner) {}

Transmission_base::~Transmission_base() {
    _diner.remove_timeout(_period);
    _diner.remove_timeout(_retry);
}

void Transmission_base::set_period(int ms) {
    _diner.remove_timeout(_period);
    _period.period = ms;
    if (ms <= 0) return;
    _diner.submit_timeout(_period, ms);
    request();
}

void Transmission_base::request(uint8_t destination) {
    _due.set(destination);
    send_due();
}

bool Transmission_base::handle(Timeout& t) {
    if (&t == &_period) {
        request();
    } else if (&t == &_retry) {
        send_due();
    } else {
        return false;
    }
    return true;
}

bool Transmission_base::handle(const waiter_event& e) {
    if (e.module_id == stack.module_id() && (e.id == JIN_stack::event_room || e.id == JIN_stack::event_claimed))
        send_due();
    return false;
}

/// All first: nodes that asked for themselves are fewer.
void Transmission_base::send_due() {
    bool is_busy = false;
    for (unsigned destination = 256; destination-- > 0;) {
        if (!_due[destination]) continue;
        switch (build_and_send(static_cast<uint8_t>(destination))) {
        case JIN_stack::busy:
            is_busy = true;
            continue; // another destination may have room
        case JIN_stack::refused:
            ++_refused;
            break;
        case JIN_stack::taken:
            ++_sent;
            break;
        }
        _due.reset(destination);
    }
    if (!is_busy) return;
    uint8_t own;
    _diner.submit_timeout(_retry, stack.address(own) ? retry_ms : no_address_retry_ms);
}

} // namespace JIN
