// SPDX-License-Identifier: MIT
#include "glue/jin/JIN_stack.h"
#include "glue/jin/JIN_inbox.h"
#include <algorithm>
#include <cstdlib>

JIN_stack::JIN_stack(module_man& mm, Mutex* shared) : lock(shared ? *shared : _own_lock) {
    if (_waiters.init(mm) != 0) exit(-132);
}

JIN_stack::~JIN_stack() = default;

void JIN_stack::deliver(const JIN_message& m, bool for_this_node) {
    for (JIN_inbox& inbox : _inboxes) {
        inbox.is_of_this_stack();
        if (inbox.wants(m, for_this_node)) inbox.put(m);
    }
}

void JIN_stack::tell(Event e) { _waiters.send(waiter_event(module_id(), e, 0), waiter_descriptor::drop_duplicates); }

void JIN_stack::transfer_failed() {
    _transfers_failed.fetch_add(1, std::memory_order_relaxed);
    tell(event_transfer);
}

void JIN_stack::tell_room() {
    if (!_room_wanted) return;
    _room_wanted = false;
    tell(event_room);
}

int JIN_stack::wishes(uint32_t* pgns, int most) const {
    int n = 0;
    for (const JIN_inbox& inbox : _inboxes) {
        if (inbox._num_pgns == 0) return -1;
        for (int i = 0; i < inbox._num_pgns; ++i) {
            if (std::find(pgns, pgns + n, inbox._pgns[i]) != pgns + n) continue;
            if (n == most) return -1;
            pgns[n++] = inbox._pgns[i];
        }
    }
    return n;
}

bool JIN_stack::everything_wished() const {
    for (const JIN_inbox& inbox : _inboxes) {
        if (inbox._reach == JIN_inbox::everything) return true;
    }
    return false;
}
