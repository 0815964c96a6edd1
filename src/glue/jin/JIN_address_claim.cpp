// SPDX-License-Identifier: MIT
#include "glue/jin/JIN_address_claim.h"
#include <algorithm>

JIN_address_claim::Port::~Port() = default;

JIN_address_claim::JIN_address_claim(Port& port, JIN_name name, uint8_t preferred, int margin)
    : _port(port)
    , _name(name)
    , _preferred(preferred > JIN::highest_unicast ? JIN::no_address : preferred)
    , _margin(margin)
    , _wanted(_preferred)
    , _random(static_cast<uint32_t>(name.value ^ name.value >> 32)) {
    delay(); // nearly the same for identity numbers that follow each other, as of one batch: the next lie 14 ms apart
}

void JIN_address_claim::begin(int64_t now) {
    quit();
    if (!_name.is_set()) return;
    _state = waiting;
    _due = now + delay();
}

void JIN_address_claim::quit() {
    const bool had_one = _state == claimed;
    _state = silent;
    _asked = _to_send = false;
    _due = never;
    std::fill_n(_holders, num_holders, 0);
    if (had_one) _port.lost_address();
}

bool JIN_address_claim::address(uint8_t& own) const {
    if (_state != claimed) return false;
    own = _wanted;
    return true;
}

JIN_name JIN_address_claim::holder(uint8_t a) const {
    if (_state == claimed && a == _wanted) return _name;
    return a <= JIN::highest_unicast ? JIN_name(_holders[a]) : JIN_name();
}

void JIN_address_claim::run(int64_t now) {
    if (now < _due) return;
    _due = never;
    if (_to_send) {
        send(now);
    } else if (_state == claiming) {
        _state = claimed;
        _port.claimed_address();
    } else if (_state == no_address || !_asked) {
        ask(now);
    } else {
        take_another(_wanted, now);
    }
}

/// Who has no address in mind waits for the answers before he chooses one.
void JIN_address_claim::ask(int64_t now) {
    _asked = _port.send_request_for_claims();
    if (!_asked) {
        _due = now + retry_ms;
        return;
    }
    const bool must_wait = _state == no_address || _wanted == JIN::no_address;
    if (_state == no_address) std::fill_n(_holders, num_holders, 0);
    _state = waiting;
    if (must_wait) {
        _due = now + contention_ms;
    } else {
        take_another(_wanted, now);
    }
}

void JIN_address_claim::claim(uint8_t a, int64_t now) {
    if (_state == claimed) _port.lost_address();
    _wanted = a;
    _holders[a] = 0;
    _state = claiming;
    _claimed_at = never;
    _to_send = true;
    send(now);
}

void JIN_address_claim::take_another(uint8_t first_choice, int64_t now) {
    uint8_t a;
    if (choose(first_choice, a)) return claim(a, now);
    if (_state == claimed) _port.lost_address();
    _state = no_address;
    _to_send = true;
    _due = now + delay();
    _port.cannot_claim();
}

/// Free, or held by a NAME that gives way.
bool JIN_address_claim::may_take(uint8_t a) const {
    return a <= JIN::highest_unicast && (_holders[a] == 0 || _name.wins_against(JIN_name(_holders[a])));
}

/// The search begins somewhere else for each identity number, so that nodes that lost the same address do not all run
/// after the same next one.
bool JIN_address_claim::choose(uint8_t first_choice, uint8_t& a) const {
    for (const uint8_t wish : {first_choice, _preferred}) {
        a = wish;
        if (may_take(a)) return true;
    }
    if (!_name.arbitrary_address()) return false;
    constexpr uint32_t num = last_arbitrary - first_arbitrary + 1;
    for (const bool must_be_free : {true, false}) {
        for (uint32_t i = 0; i < num; ++i) {
            a = static_cast<uint8_t>(first_arbitrary + (_name.identity_number() + i) % num);
            if (must_be_free ? _holders[a] == 0 : may_take(a)) return true;
        }
    }
    return false;
}

/// What is to be sent now.
void JIN_address_claim::send(int64_t now) {
    if (!_port.send_claim(_state == no_address ? JIN::no_address : _wanted)) {
        _due = now + retry_ms;
        return;
    }
    _to_send = false;
    if (_state == claiming) {
        if (_claimed_at == never || _margin > 0) _claimed_at = now + contention_ms + _margin;
        _due = _claimed_at;
    } else {
        _due = _state == no_address ? now + ask_again_ms : never;
    }
}

/// Nodes without an address would all answer under the same one, hence the delay.
void JIN_address_claim::answer(int64_t now) {
    if (_to_send || _state < claiming) return;
    _to_send = true;
    if (_state == no_address) {
        _due = now + delay();
    } else {
        send(now);
    }
}

void JIN_address_claim::heard(const JIN_message& m, int64_t now) {
    if (m.pgn == JIN::pgn_address_claimed) return heard_claim(m, now);
    if (_state == claimed && m.source == _wanted) return violated(now, true);
    const bool has_address = _state == claiming || _state == claimed;
    if (m.destination != JIN::global && !(has_address && m.destination == _wanted)) return;
    uint32_t asked_for;
    if (m.get_requested_pgn(asked_for) && asked_for == JIN::pgn_address_claimed) answer(now);
    if (m.pgn == JIN::pgn_commanded_address) heard_command(m, now);
}

void JIN_address_claim::heard_claim(const JIN_message& m, int64_t now) {
    if (m.size != JIN_name::num_bytes) return;
    const JIN_name other = JIN_name::from_bytes(m.data);
    const uint8_t a = m.source;
    if (!other.is_set()) return;
    if (other != _name) {
        for (uint64_t& h : _holders) {
            if (h == other.value) h = 0; // it has moved
        }
        if (a <= JIN::highest_unicast) _holders[a] = other.value;
    }
    if (a == _wanted && (_state == claiming || _state == claimed)) {
        if (other == _name) { // a twin: an answer would be answered, for ever
            violated(now, false);
        } else if (_name.wins_against(other)) {
            _holders[a] = 0;
            answer(now);
        } else {
            take_another(_preferred, now);
        }
    } else if (_state == no_address && !_to_send) {
        uint8_t freed;
        if (choose(_wanted, freed)) claim(freed, now);
    }
}

/// From a service tool, which knows what it does; an address that a winner has is not taken all the same.
void JIN_address_claim::heard_command(const JIN_message& m, int64_t now) {
    if (m.size < 9 || JIN_name::from_bytes(m.data) != _name || _state < claiming) return;
    const uint8_t a = m.get_uint8(8);
    if (may_take(a) && !(_state != no_address && a == _wanted)) claim(a, now);
}

void JIN_address_claim::violated(int64_t now, bool answer_it) {
    if (now < _next_violation) return;
    _next_violation = now + violation_ms;
    if (answer_it) answer(now);
    _port.address_violated();
}

/// [ms] 0..153, in steps of 0.6 ms, from a generator that each NAME starts elsewhere.
int JIN_address_claim::delay() {
    _random = _random * 1664525u + 1013904223u;
    return static_cast<int>(_random >> 24) * 6 / 10;
}
