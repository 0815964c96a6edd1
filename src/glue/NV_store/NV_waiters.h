// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diner/waiter_event.h"
#include "glue/diner/waiter_ref.h"
#include "util/api.h"
#include "util/sl_list.h"
#include <atomic>

class waiter_descriptor;

namespace NV_store {

class Access_base;
class NV_item;
class Virt_access;

/// Kind of a registration; it decides what the data word of the event carries.
enum Reg_type : unsigned char {
    reg_self = 0,       ///< the registration itself, when the pointer that a type needs is missing
    reg_value = 1,      ///< the caller's number
    reg_item = 2,       ///< the NV_item
    reg_access = 3,     ///< the Access_base
    reg_virt_access = 4 ///< the Virt_access
};
constexpr int num_reg_types = 5;
/// The module ids of a tree's events, by kind.
using Module_ids = short[num_reg_types];

/// One waiter's registration with one item.
class KAV_INTERNAL NV_waiter_reg : public sll_node {
public:
    /// With `skip_unforced` the waiter is notified by forced notifications only.
    NV_waiter_reg(waiter_descriptor* w, unsigned int value, bool skip_unforced);
    NV_waiter_reg(waiter_descriptor* w, NV_item* item, bool skip_unforced);
    NV_waiter_reg(waiter_descriptor* w, Access_base* access, bool skip_unforced);
    NV_waiter_reg(waiter_descriptor* w, Virt_access* virt, bool skip_unforced);
    NV_waiter_reg(const NV_waiter_reg& o);

    /// The same waiter, type and target.
    bool operator==(const NV_waiter_reg& o) const {
        return waiter.get() == o.waiter.get() && type == o.type && target == o.target;
    }
    /// Post the event: true when that was done, or when there is nothing to report. Fails without a tree (null), when
    /// that has no module ids (0), or when the waiter has no room.
    bool send_event(const Module_ids* modules, bool forced) const;

    waiter_ref<waiter_ref_base::setting> waiter; ///< null when it died without being unregistered
    event_word_t target;
    Reg_type type;
    bool skip_unforced;

private:
    NV_waiter_reg(waiter_descriptor* w, Reg_type t, const void* p, bool skip);
};

/// The registrations of an item, in order; it owns its copies. Guarded by the tree's lock.
class KAV_INTERNAL NV_waiter_list {
public:
    NV_waiter_list() = default;
    ~NV_waiter_list();
    NV_waiter_list(const NV_waiter_list&) = delete;
    NV_waiter_list& operator=(const NV_waiter_list&) = delete;

    /// Nobody is registered; any thread, without the lock. What the caller wrote before is seen by whoever registers
    /// afterwards, so that of a change and a registration at the same time one learns of the other.
    bool empty() const { return _count.fetch_add(0, std::memory_order_acq_rel) == 0; }
    void add(const NV_waiter_reg& r);
    bool exists(const NV_waiter_reg& r) const;
    bool remove(const NV_waiter_reg& r); ///< the first that is equal; false when there is none
    /// Notify all; false when a post failed (the others are notified all the same).
    bool notify_updated(const Module_ids* modules, bool forced) const;

private:
    c_sl_list<NV_waiter_reg> _regs;
    mutable std::atomic<int> _count{0}; ///< of _regs, for empty()
};

} // namespace NV_store
