// SPDX-License-Identifier: MIT
#include "glue/jin/JIN_memory_bus.h"
#include "util/clock.h"
#include <algorithm>
#include <cstring>

JIN_memory_bus::JIN_memory_bus() : _driver("JINMEM", 256, true) {}

JIN_memory_bus::~JIN_memory_bus() {
    _stop = true;
    _wake.release();
    _driver.join();
}

bool JIN_memory_bus::start() { return _driver.start(0, drive, this) == 0; }

void* JIN_memory_bus::drive(void* bus) {
    auto& b = *static_cast<JIN_memory_bus*>(bus);
    while (!b._stop) {
        const int ms = b.process();
        if (ms < 0) {
            b._wake.acquire();
        } else {
            b._wake.try_acquire((ms + 9) / 10);
        }
    }
    return nullptr;
}

int64_t JIN_memory_bus::now() {
    struct timespec t;
    Util::wall_clock(t);
    const int64_t wall = int64_t{t.tv_sec} * 1000 + t.tv_nsec / 1000000;
    if (wall < _last_wall) _offset += _last_wall - wall;
    _last_wall = wall;
    return wall + _offset;
}

int JIN_memory_bus::process() {
    const Scoped_lock held(_lock);
    const int64_t t = now();
    const int64_t next = run(t);
    return next == INT64_MAX ? -1 : static_cast<int>(std::min<int64_t>(next - t, 1 << 20));
}

/// Each thing at its own time, so that a clock that leaps changes no order. When there is more to do.
int64_t JIN_memory_bus::run(int64_t until) {
    for (;;) {
        int64_t next = INT64_MAX;
        for (const Node& n : _nodes) {
            n.is_locked();
            next = std::min(next, n.due());
        }
        if (next > until) return next;
        for (Node& n : _nodes) {
            n.is_locked();
            if (n.due() <= next) n.run(next);
        }
        deliver_shorts(next);
    }
}

void JIN_memory_bus::inject(const JIN_message& m) {
    const Scoped_lock held(_lock);
    if (!_there) return;
    const int64_t t = now();
    run(t);
    spread(nullptr, m, t);
    deliver_shorts(t);
    _wake.release();
}

void JIN_memory_bus::set_there(bool there) {
    const Scoped_lock held(_lock);
    if (there == _there) return;
    _there = there;
    _num_waiting = 0;
    const int64_t t = now();
    for (Node& n : _nodes) {
        n.is_locked();
        if (there) {
            n.bus_back(t);
        } else {
            n.bus_gone();
        }
    }
    _wake.release();
}

void JIN_memory_bus::set_loss(unsigned per_mille, uint32_t seed) {
    const Scoped_lock held(_lock);
    _loss = per_mille;
    _random = seed;
}

uint64_t JIN_memory_bus::num_frames() const {
    const Scoped_lock held(_lock);
    return _frames;
}

bool JIN_memory_bus::lose(uint32_t frames) {
    while (_loss > 0 && frames-- > 0) {
        _random = _random * 1664525u + 1013904223u;
        if ((_random >> 8) % 1000 < _loss) return true;
    }
    return false;
}

bool JIN_memory_bus::send_short(Node* sender, const JIN_message& m) {
    if (_num_waiting == max_waiting) return false;
    Short& s = _waiting[(_first + _num_waiting++) % max_waiting];
    s = {sender, m.pgn, m.source, m.destination, m.priority, static_cast<uint8_t>(m.size), {}};
    if (m.size > 0) memcpy(s.bytes, m.data, m.size);
    ++_frames;
    return true;
}

/// One after the other and never nested: what a node sends because of what it hears comes behind what waits.
void JIN_memory_bus::deliver_shorts(int64_t now) {
    if (_delivering) return;
    _delivering = true;
    while (_num_waiting > 0) {
        Short s = _waiting[_first];
        _first = (_first + 1) % max_waiting;
        --_num_waiting;
        JIN_message m(s.pgn, s.bytes, s.length, s.destination, s.priority);
        m.source = s.source;
        spread(s.sender, m, now);
    }
    _delivering = false;
}

void JIN_memory_bus::spread(const Node* sender, const JIN_message& m, int64_t now) {
    const uint32_t packets = JIN::num_packets(m.size);
    for (Node& n : _nodes) {
        n.is_locked();
        if (&n != sender && !lose(packets)) n.heard(m, now);
    }
}

JIN_memory_bus::Node::Node(JIN_memory_bus& bus, module_man& mm, JIN_name name, uint8_t preferred)
    : JIN_stack(mm, &bus._lock), _bus(bus), _claim(*this, name, preferred) {
    const Scoped_lock held(lock);
    bus_is_locked();
    bus._nodes.push(this);
    if (bus._there) _claim.begin(bus.now());
    bus._wake.release();
}

JIN_memory_bus::Node::~Node() {
    const Scoped_lock held(lock);
    bus_is_locked();
    _bus._nodes.remove(this);
}

JIN_stack::Result JIN_memory_bus::Node::send(const JIN_message& m) {
    const Scoped_lock held(lock);
    bus_is_locked();
    if (!m.is_sendable() || !name().is_set()) return refused;
    const int64_t t = _bus.now();
    _bus.run(t);
    uint8_t own;
    if (_busy || !_bus._there || !_claim.address(own)) return say_busy();
    if (m.size > 8) return start(m.destination == JIN::global ? _for_all : _for_one, m, own);
    JIN_message sent = m;
    sent.source = own;
    if (!JIN::is_addressable(m.pgn)) sent.destination = JIN::global;
    if (!_bus.send_short(this, sent)) return say_busy();
    _bus.deliver_shorts(t);
    return taken;
}

JIN_stack::Result JIN_memory_bus::Node::start(Transfer& t, const JIN_message& m, uint8_t own) {
    bus_is_locked();
    if (t.under_way) return say_busy();
    t.message.clear();
    if (!t.message.append(m.data, m.size)) return say_busy(); // no memory
    t.message.pgn = m.pgn;
    t.message.source = own;
    t.message.destination = m.destination;
    t.message.priority = m.priority;
    t.under_way = true;
    const int packets = static_cast<int>(JIN::num_packets(m.size));
    int lasts = packets * packet_ms;
    t.fails = false;
    if (m.destination != JIN::global) {
        t.fails = true;
        for (const Node& n : _bus._nodes) {
            uint8_t a;
            n.is_locked();
            if (&n != this && n._claim.address(a) && a == m.destination) t.fails = false;
        }
        lasts = t.fails ? no_receiver_ms : packets * addressed_packet_ms;
    }
    t.ends = _bus.now() + lasts;
    _bus._frames += static_cast<uint64_t>(packets) + 1;
    _bus._wake.release();
    return taken;
}

bool JIN_memory_bus::Node::address(uint8_t& own) const {
    const Scoped_lock held(lock);
    return _claim.address(own);
}

bool JIN_memory_bus::Node::bus_is_there() const {
    const Scoped_lock held(lock);
    bus_is_locked();
    return _bus._there;
}

bool JIN_memory_bus::Node::name_of(uint8_t address, JIN_name& name) const {
    const Scoped_lock held(lock);
    const JIN_name holder = _claim.holder(address);
    if (holder.is_set()) name = holder;
    return holder.is_set();
}

JIN_address_claim::State JIN_memory_bus::Node::claim_state() const {
    const Scoped_lock held(lock);
    return _claim.state();
}

void JIN_memory_bus::Node::set_busy(bool on) {
    const Scoped_lock held(lock);
    _busy = on;
    if (!on) tell_room();
}

void JIN_memory_bus::Node::heard(const JIN_message& m, int64_t now) {
    uint8_t own = JIN::global;
    _claim.address(own);
    deliver(m, m.destination == JIN::global || m.destination == own);
    _claim.heard(m, now);
}

int64_t JIN_memory_bus::Node::due() const {
    int64_t first = _claim.due();
    for (const Transfer* t : {&_for_all, &_for_one}) {
        if (t->under_way) first = std::min(first, t->ends);
    }
    return first;
}

void JIN_memory_bus::Node::run(int64_t now) {
    for (Transfer* t : {&_for_all, &_for_one}) {
        if (t->under_way && t->ends <= now) end(*t, now);
    }
    _claim.run(now);
}

void JIN_memory_bus::Node::end(Transfer& t, int64_t now) {
    bus_is_locked();
    t.under_way = false;
    if (t.fails) {
        transfer_failed();
    } else {
        _bus.spread(this, t.message, now);
    }
    if (!_busy) tell_room();
}

void JIN_memory_bus::Node::bus_gone() {
    for (Transfer* t : {&_for_all, &_for_one}) {
        if (t->under_way) transfer_failed();
        t->under_way = false;
    }
    _claim.quit();
    tell(event_bus_gone);
}

void JIN_memory_bus::Node::bus_back(int64_t now) {
    _claim.begin(now);
    tell(event_bus_back);
}

bool JIN_memory_bus::Node::send_claim(uint8_t from) {
    unsigned char bytes[JIN_name::num_bytes];
    name().to_bytes(bytes);
    JIN_message m(JIN::pgn_address_claimed, bytes, sizeof bytes);
    m.source = from;
    bus_is_locked();
    return _bus.send_short(this, m);
}

bool JIN_memory_bus::Node::send_request_for_claims() {
    unsigned char bytes[3];
    JIN_message m(JIN::pgn_request, bytes, sizeof bytes);
    m.set_uint24_le(0, JIN::pgn_address_claimed);
    bus_is_locked();
    return _bus.send_short(this, m);
}

void JIN_memory_bus::Node::claimed_address() {
    tell(event_claimed);
    if (!_busy) tell_room();
}
void JIN_memory_bus::Node::lost_address() { tell(event_address_lost); }
void JIN_memory_bus::Node::cannot_claim() { tell(event_no_address); }
void JIN_memory_bus::Node::address_violated() { tell(event_violation); }
