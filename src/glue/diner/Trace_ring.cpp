// SPDX-License-Identifier: MIT
#include "glue/diner/Trace_ring.h"
#include <algorithm>
#include <cstring>
#include <new>

Trace_ring* Trace_ring::make(unsigned records) {
    unsigned size = Trace::least_records;
    while (size < records) size *= 2;
    auto* const ring = new (std::nothrow) Trace_ring(size);
    if (ring && ring->_slots) return ring;
    delete ring;
    return nullptr;
}

Trace_ring::Trace_ring(unsigned records) : _slots(new (std::nothrow) Slot[records]), _mask(records - 1) {
    if (!_slots) return;
    for (unsigned i = 0; i < records; ++i) { // touched now, so that no thread waits for the memory later
        for (auto* word : {&_slots[i].head, &_slots[i].ticks, &_slots[i].places, &_slots[i].large})
            word->store(0, std::memory_order_relaxed);
    }
}

void Trace_ring::put(const Trace_record& r) {
    const uint64_t number = _next.fetch_add(1, std::memory_order_acq_rel) + 1;
    Slot& slot = _slots[(number - 1) & _mask];
    uint64_t before = slot.head.load(std::memory_order_relaxed);
    if ((before & busy) == busy || before >> number_shift > number ||
        !slot.head.compare_exchange_strong(before, before | busy, std::memory_order_acq_rel)) {
        _dropped.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    slot.ticks.store(r.ticks, std::memory_order_release);
    slot.places.store(uint64_t{r.thread} << 32 | r.small, std::memory_order_release);
    slot.large.store(r.large, std::memory_order_release);
    slot.head.store(number << number_shift | uint64_t{r.diner} << diner_shift | r.kind, std::memory_order_release);
}

bool Trace_ring::read(uint64_t number, Trace_record& r) const {
    const Slot& slot = _slots[number & _mask];
    const uint64_t head = slot.head.load(std::memory_order_acquire);
    if (head >> number_shift != number + 1 || (head & busy) == busy) return false;
    r.ticks = slot.ticks.load(std::memory_order_acquire);
    const uint64_t places = slot.places.load(std::memory_order_acquire);
    r.large = slot.large.load(std::memory_order_acquire);
    if (slot.head.load(std::memory_order_relaxed) != head) return false;
    r.thread = static_cast<uint32_t>(places >> 32);
    r.small = static_cast<uint32_t>(places);
    r.diner = static_cast<uint16_t>(head >> diner_shift);
    r.kind = static_cast<Trace::Kind>(head & busy);
    return true;
}

uint64_t Trace_ring::begin(uint64_t end) const {
    // Forgotten since `end` was read, the first may lie behind it.
    const uint64_t first = std::min(_first.load(std::memory_order_relaxed), end);
    return end - first > _mask + 1 ? end - (_mask + 1) : first;
}

Trace::Counts Trace_ring::counts() const {
    Trace::Counts c;
    const uint64_t last = end();
    c.recorded = last - std::min(_first.load(std::memory_order_relaxed), last);
    c.overwritten = c.recorded > _mask + 1 ? c.recorded - (_mask + 1) : 0;
    c.dropped = _dropped.load(std::memory_order_relaxed);
    return c;
}

Trace_names& Trace_names::get() {
    static Trace_names& names = *new Trace_names; // static objects that go later still record
    return names;
}

unsigned Trace_names::number_of(const char* name, int id) {
    const Scoped_lock held(_mutex);
    const unsigned count = _count.load(std::memory_order_relaxed);
    for (unsigned i = 1; i <= count; ++i)
        if (_names[i].id == id && strcmp(_names[i].text, name) == 0) return i;
    if (count == Trace::max_diners) return 0;
    Name& added = _names[count + 1];
    strncpy(added.text, name, sizeof added.text - 1);
    added.id = id;
    _count.store(count + 1, std::memory_order_release);
    return count + 1;
}

void Trace_names::set_thread(unsigned number, uint32_t thread) {
    if (number) _names[number].thread.store(thread, std::memory_order_relaxed);
}

bool Trace_names::let_in(const char* name, bool on) {
    bool found = false;
    const unsigned count = _count.load(std::memory_order_acquire);
    for (unsigned i = 1; i <= count; ++i) {
        if (name && strcmp(_names[i].text, name) != 0) continue;
        _names[i].left_out.store(!on, std::memory_order_relaxed);
        found = true;
    }
    return found;
}

const char* Trace_names::name(unsigned number) const {
    return number <= _count.load(std::memory_order_acquire) ? _names[number].text : "";
}

const char* Trace_names::name_of_thread(uint32_t thread) const {
    const unsigned count = _count.load(std::memory_order_acquire);
    for (unsigned i = 1; i <= count; ++i)
        if (_names[i].thread.load(std::memory_order_relaxed) == thread) return _names[i].text;
    return nullptr;
}
