// SPDX-License-Identifier: MIT
#include "glue/diner/module_man.h"
#include <mutex>

namespace {
constexpr int32_t last_of_ordinary = 32767; // module ids are 16 bits wide
constexpr int32_t most_extended = 32768;
} // namespace

const waiter_event module_man::EVENT_ANONYMOUS(1, 1, 0);

module_man::module_man() {
    for (waiter_event_node& n : _pool) _free.push(&n);
    _num_free = pool_size;
    _alive = true;
}

module_man::~module_man() {
    _alive = false;
    while (_free.pop()) {
    }
}

int module_man::init_module(short* id, bool extended) { return init_module_array(id, 1, extended); }

int module_man::init_module_array(short* ids, int n, bool extended) {
    std::lock_guard<Mutex> lock(_mutex);
    if (n > (extended ? most_extended - _num_extended : last_of_ordinary - _last_ordinary)) return -1;
    for (int i = 0; i < n; ++i) ids[i] = static_cast<short>(extended ? -++_num_extended : ++_last_ordinary);
    return 0;
}

waiter_event_node* module_man::get_blank_event() {
    std::lock_guard<Mutex> lock(_mutex);
    waiter_event_node* n = _free.pop();
    if (!n) return nullptr;
    const int32_t left = _free.size();
    _num_free.store(left, std::memory_order_relaxed);
    if (left < _least_free.load(std::memory_order_relaxed)) _least_free.store(left, std::memory_order_relaxed);
    return n;
}

void module_man::return_used_event(waiter_event_node* n) {
    if (!_alive) return;
    n->event.set_extended_data(nullptr, 0);
    std::lock_guard<Mutex> lock(_mutex);
    _free.push(n);
    _num_free.store(_free.size(), std::memory_order_relaxed);
}

int module_man::num_free_events() const { return _num_free.load(std::memory_order_relaxed); }

int module_man::least_free_events() const { return _least_free.load(std::memory_order_relaxed); }
