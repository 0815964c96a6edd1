// SPDX-License-Identifier: MIT
#include "glue/diner/module_man.h"
#include "util/Bugger.h"
#include <algorithm>
#include <mutex>

namespace {

std::mutex ends; // of pools, and of waiters that have nodes; it needs no destruction, so it is there as long as threads

constexpr int32_t max_ordinary = 32767; // module ids are 16 bits wide
constexpr int32_t max_extended = 32768;

/// The returned nodes as one word, so that it changes in one step: how many, and the places of the last and of the
/// first one returned.
struct Returned {
    static constexpr unsigned bits = 10;
    static constexpr uint32_t mask = (1u << bits) - 1;
    static_assert(module_man::pool_size <= int(mask));

    explicit Returned(uint32_t word) : count(word & mask), last(word >> bits & mask), first(word >> 2 * bits & mask) {}
    uint32_t word() const { return count | last << bits | first << 2 * bits; }

    uint32_t count, last, first;
};

} // namespace

const waiter_event module_man::EVENT_ANONYMOUS(1, 1, 0);

module_man::module_man() {
    for (waiter_event_node& n : _pool) {
        n.next = _blank;
        _blank = &n;
    }
    _alive = true;
}

module_man::~module_man() {
    const std::lock_guard<std::mutex> held(ends);
    _alive = false;
}

void module_man::while_alive(void (*flush)(void* waiter), void* waiter) {
    const std::lock_guard<std::mutex> held(ends);
    if (_alive) flush(waiter);
}

int module_man::init_module(short* id, bool extended) { return init_module_array(id, 1, extended); }

int module_man::init_module_array(short* ids, int n, bool extended) {
    const Scoped_lock held(_mutex);
    if (n > (extended ? max_extended - _num_extended : max_ordinary - _last_ordinary)) return -1;
    for (int i = 0; i < n; ++i) ids[i] = static_cast<short>(extended ? -++_num_extended : ++_last_ordinary);
    return 0;
}

waiter_event_node* module_man::get_blank_event(int queued) {
    const Scoped_lock held(_mutex);
    // Nodes that came back since count as free as well, but are looked at only when it matters: the consumers write
    // there.
    if (queued > _num_blank / 2 || _num_blank <= _least_free) collect();
    if (_num_blank == 0 || queued > _num_blank / 2) return nullptr;
    sll_node* const n = _blank;
    _blank = n->next;
    n->next = nullptr;
    _least_free = std::min(_least_free, --_num_blank);
    return static_cast<waiter_event_node*>(n);
}

/// Put the returned nodes to the blank ones.
void module_man::collect() {
    const Returned all(_returned.exchange(0, std::memory_order_acquire));
    if (all.count == 0) return;
    _pool[all.first].next = _blank;
    _blank = &_pool[all.last];
    _num_blank += static_cast<int32_t>(all.count);
}

void module_man::return_used_event(waiter_event_node* n) {
    if (!_alive.load(std::memory_order_relaxed)) return;
    if (n->in_list()) Bugger::report_bug("sl_list::push, already in a list.\n"); // twice, or still queued
    if (n->event.extended) n->event.set_extended_data(nullptr, 0);
    const auto place = static_cast<uint32_t>(n - _pool);
    uint32_t before = _returned.load(std::memory_order_relaxed);
    Returned r(0);
    do {
        r = Returned(before);
        n->next = r.count ? &_pool[r.last] : sll_node::last_mark();
        if (r.count == 0) r.first = place;
        r.last = place;
        ++r.count;
    } while (!_returned.compare_exchange_weak(before, r.word(), std::memory_order_release, std::memory_order_relaxed));
}

int module_man::num_free_events() const {
    const Scoped_lock held(_mutex);
    return _num_blank + static_cast<int>(Returned(_returned.load(std::memory_order_relaxed)).count);
}

int module_man::least_free_events() const {
    const Scoped_lock held(_mutex);
    return _least_free;
}
