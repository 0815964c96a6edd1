// SPDX-License-Identifier: MIT
#include "glue/jin/JIN_inbox.h"
#include <algorithm>
#include <cstring>
#include <new>

JIN_inbox::JIN_inbox(JIN_stack& stack, waiter_descriptor* waiter, std::initializer_list<uint32_t> pgns, uint32_t bytes,
                     Reach reach)
    : _stack(stack)
    , _waiter(waiter)
    , _reach(reach)
    , _bytes(new (std::nothrow) unsigned char[bytes])
    , _queue(_bytes.get(), _bytes ? bytes : 0) {
    if (pgns.size() <= max_pgns) _num_pgns = static_cast<int>(std::copy(pgns.begin(), pgns.end(), _pgns) - _pgns);
    const Scoped_lock held(_stack.lock);
    _stack._inboxes.push(this);
    _stack.wishes_changed();
}

JIN_inbox::~JIN_inbox() {
    const Scoped_lock held(_stack.lock);
    _stack._inboxes.remove(this);
    _stack.wishes_changed();
}

bool JIN_inbox::receive(JIN_grow_message& m) {
    const Scoped_lock held(_stack.lock);
    Head head;
    if (_queue.used() == 0) return false;
    _queue.peek(0, reinterpret_cast<unsigned char*>(&head), sizeof head);
    if (!m.resize(head.length)) return false;
    _queue.peek(overhead, m.data, head.length);
    _queue.drop(overhead + head.length);
    m.pgn = head.pgn;
    m.source = head.source;
    m.destination = head.destination;
    m.priority = head.priority;
    return true;
}

uint32_t JIN_inbox::lost() const {
    const Scoped_lock held(_stack.lock);
    return _lost;
}

bool JIN_inbox::wants(const JIN_message& m, bool for_this) const {
    if (!for_this && _reach != everything) return false;
    return _num_pgns == 0 || std::find(_pgns, _pgns + _num_pgns, m.pgn) != _pgns + _num_pgns;
}

void JIN_inbox::put(const JIN_message& m) {
    if (m.size > JIN::max_length || _queue.capacity == 0 || _queue.room() < overhead + m.size) {
        ++_lost;
    } else {
        unsigned char bytes[overhead] = {};
        const Head head = {m.pgn, static_cast<uint16_t>(m.size), m.source, m.destination, m.priority};
        memcpy(bytes, &head, sizeof head);
        _queue.put(bytes, overhead);
        _queue.put(m.data, m.size);
    }
    if (waiter_descriptor* const w = _waiter)
        w->send_event(waiter_event(_stack.module_id(), JIN_stack::event_arrived, 0),
                      waiter_descriptor::drop_duplicates);
}
