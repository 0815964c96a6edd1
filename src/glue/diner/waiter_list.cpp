// SPDX-License-Identifier: MIT
#include "glue/diner/waiter_list.h"
#include "glue/diner/module_man.h"
#include <algorithm>

int waiter_list::init(module_man& mm) { return mm.init_module(&_module_id, false); }

int waiter_list::add(waiter_descriptor* w) {
    waiter_descriptor** const end = _waiters + _count;
    if (!w || _count == max_waiters || std::find(_waiters, end, w) != end) return -1;
    _waiters[_count++] = w;
    return 0;
}

int waiter_list::remove(waiter_descriptor* w) {
    waiter_descriptor** const end = _waiters + _count;
    waiter_descriptor** const at = std::find(_waiters, end, w);
    if (at == end) return -1;
    std::move(at + 1, end, at);
    _waiters[--_count] = nullptr;
    return 0;
}

void waiter_list::send(const waiter_event& e, bool coalesce, bool unique) const {
    for (int i = 0; i < _count; ++i) _waiters[i]->send_event(e, coalesce, unique);
}
