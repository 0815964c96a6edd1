// SPDX-License-Identifier: MIT
#include "glue/diner/waiter_list.h"
#include "glue/diner/module_man.h"
#include <algorithm>

int waiter_list::init(module_man& mm) {
    short id;
    if (mm.init_module(&id, false) != 0) return -1;
    _module_id.store(id, std::memory_order_relaxed);
    return 0;
}

int waiter_list::add(waiter_descriptor* w) {
    const Scoped_lock held(_lock);
    auto* const end = std::remove(_waiters, _waiters + _count, nullptr); // those that died
    std::fill(end, _waiters + _count, nullptr);
    _count = static_cast<int>(end - _waiters);
    if (!w || _count == max_waiters || std::find(_waiters, end, w) != end) return -1;
    _waiters[_count++] = w;
    return 0;
}

int waiter_list::remove(waiter_descriptor* w) {
    const Scoped_lock held(_lock);
    auto* const end = _waiters + _count;
    auto* const at = w ? std::find(_waiters, end, w) : end;
    if (at == end) return -1;
    std::copy(at + 1, end, at);
    _waiters[--_count] = nullptr;
    return 0;
}

void waiter_list::send(const waiter_event& e, waiter_descriptor::Duplicates d) const {
    for (int i = 0; i < _count; ++i) {
        if (waiter_descriptor* const w = _waiters[i]) w->send_event(e, d);
    }
}
