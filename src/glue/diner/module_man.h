// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diner/waiter_event.h"
#include "util/Mutex.h"
#include "util/api.h"
#include <atomic>

/// The pool of event nodes that a set of waiters shares, and the source of module ids. It outlives every waiter that
/// draws from it. Any thread may call any member.
class KAV_API module_man {
public:
    static constexpr int pool_size = 1000; ///< [nodes]

    /// What a waiter yields when it was woken without a queued event: module 1, id 1, data 0.
    static const waiter_event EVENT_ANONYMOUS;

    module_man();
    ~module_man(); ///< nodes handed back from now on are ignored
    module_man(const module_man&) = delete;
    module_man& operator=(const module_man&) = delete;

    /// A fresh module id: ordinary ones count up from 1026, extended ones down from -1. 0; -1 when the 16 bits are used
    /// up.
    int init_module(short* id, bool extended);
    /// `n` fresh ids; 0, or -1 when fewer are left (none is used up then).
    int init_module_array(short* ids, int n, bool extended);

    /// A node of the pool for a waiter that has `queued` [nodes] already; null when those are more than half of what is
    /// free, or when all are out.
    waiter_event_node* get_blank_event(int queued = 0);
    /// Frees the event's block. Lock-free, so that consumers do not hold up producers.
    void return_used_event(waiter_event_node* n);
    int num_free_events() const; ///< [nodes] in the pool now
    /// [nodes] the pool ever came down to: how close the application has been to the limit.
    int least_free_events() const;
    /// Call `flush`, by which a waiter that ends hands its nodes back, unless the pool is gone, whose end waits for it:
    /// threads run on while a process exits.
    void while_alive(void (*flush)(void* waiter), void* waiter);

private:
    void collect() KAV_REQUIRES(_mutex);

    std::atomic<bool> _alive{false};
    [[maybe_unused]] char _apart[64]; ///< consumers read the flag above, producers change what is below
    mutable Mutex _mutex;
    int32_t _last_ordinary KAV_GUARDED_BY(_mutex) = 1025;
    int32_t _num_extended KAV_GUARDED_BY(_mutex) = 0;
    /// The blank nodes, linked by `next` as in a list.
    sll_node* _blank KAV_GUARDED_BY(_mutex) = sll_node::last_mark();
    int32_t _num_blank KAV_GUARDED_BY(_mutex) = pool_size;
    int32_t _least_free KAV_GUARDED_BY(_mutex) = pool_size;
    waiter_event_node _pool[pool_size];
    /// Nodes that came back and were not collected yet, linked likewise: see Returned.
    std::atomic<uint32_t> _returned{0};
};
