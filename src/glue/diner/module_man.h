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

    waiter_event_node* get_blank_event();         ///< a node of the pool, null when all are out
    void return_used_event(waiter_event_node* n); ///< frees the event's block
    int num_free_events() const;                  ///< [nodes] in the pool now; takes no lock
    int
    least_free_events() const; ///< [nodes] the pool ever came down to: how close the application has been to the limit

private:
    std::atomic<bool> _alive{false};
    Mutex _mutex; ///< guards what follows
    int32_t _last_ordinary = 1025;
    int32_t _num_extended = 0;
    c_sl_list<waiter_event_node> _free;
    waiter_event_node _pool[pool_size];
    std::atomic<int32_t> _num_free{0};
    std::atomic<int32_t> _least_free{pool_size};
};
