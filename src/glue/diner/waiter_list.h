// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diner/waiter_descriptor.h"
#include "glue/diner/waiter_ref.h"
#include "util/Mutex.h"
#include "util/api.h"
#include <atomic>

/// The waiters that a stream or a store notifies, at most 16, with the module id their events carry.
/// Under the lock of its owner, which add() and remove() take by themselves. Waiters are not owned; one that dies while
/// it is here leaves an empty place, see waiter_ref.
class KAV_API waiter_list {
public:
    static constexpr int max_waiters = 16;

    explicit waiter_list(Mutex& owners_lock) : _lock(owners_lock) {}

    /// Obtain the module id (an ordinary one). 0, or -1 when there is none left.
    int init(module_man& mm);
    /// 0 before init(). Any thread, no lock.
    short module_id() const { return _module_id.load(std::memory_order_relaxed); }

    int add(waiter_descriptor* w) KAV_EXCLUDES(_lock);    ///< 0; -1 when full, null or already there
    int remove(waiter_descriptor* w) KAV_EXCLUDES(_lock); ///< 0; -1 when not there
    /// Post to every waiter in order of registration; results are ignored. With the lock held, which the compiler does
    /// not check: it knows the owner's lock by another name.
    void send(const waiter_event& e, waiter_descriptor::Duplicates d) const;

private:
    Mutex& _lock;
    std::atomic<short> _module_id{0};
    int _count = 0;
    waiter_ref<waiter_ref_base::stream> _waiters[max_waiters];
};
