// SPDX-License-Identifier: MIT
#include "glue/NV_store/NV_waiters.h"
#include "glue/diner/waiter_descriptor.h"

namespace NV_store {

NV_waiter_reg::NV_waiter_reg(waiter_descriptor* w, Reg_type t, const void* p, bool skip)
    : waiter(w), target(reinterpret_cast<event_word_t>(p ? p : this)), type(p ? t : reg_self), skip_unforced(skip) {}

NV_waiter_reg::NV_waiter_reg(waiter_descriptor* w, unsigned int value, bool skip)
    : waiter(w), target(value), type(reg_value), skip_unforced(skip) {}

NV_waiter_reg::NV_waiter_reg(waiter_descriptor* w, NV_item* item, bool skip) : NV_waiter_reg(w, reg_item, item, skip) {}
NV_waiter_reg::NV_waiter_reg(waiter_descriptor* w, Access_base* access, bool skip)
    : NV_waiter_reg(w, reg_access, access, skip) {}
NV_waiter_reg::NV_waiter_reg(waiter_descriptor* w, Virt_access* virt, bool skip)
    : NV_waiter_reg(w, reg_virt_access, virt, skip) {}

NV_waiter_reg::NV_waiter_reg(const NV_waiter_reg& o)
    : sll_node(o)
    , waiter(o.waiter)
    , target(o.type == reg_self ? reinterpret_cast<event_word_t>(this) : o.target)
    , type(o.type)
    , skip_unforced(o.skip_unforced) {}

bool NV_waiter_reg::send_event(const Module_ids* modules, bool forced) const {
    waiter_descriptor* const told = waiter;
    if (!told || (skip_unforced && !forced)) return true;
    const short module = modules ? (*modules)[type] : static_cast<short>(0);
    if (module == 0) return false;
    return told->send_event(waiter_event(module, 0, target), waiter_descriptor::merge_duplicates) == 0;
}

NV_waiter_list::~NV_waiter_list() {
    while (NV_waiter_reg* r = _regs.pop()) delete r;
}

void NV_waiter_list::add(const NV_waiter_reg& r) {
    _regs.push(new NV_waiter_reg(r));
    _count.fetch_add(1, std::memory_order_acq_rel);
}

bool NV_waiter_list::exists(const NV_waiter_reg& r) const {
    for (const NV_waiter_reg& own : _regs)
        if (own == r) return true;
    return false;
}

bool NV_waiter_list::remove(const NV_waiter_reg& r) {
    for (NV_waiter_reg& own : _regs) {
        if (!(own == r)) continue;
        _regs.remove(&own);
        _count.fetch_sub(1, std::memory_order_acq_rel);
        delete &own;
        return true;
    }
    return false;
}

bool NV_waiter_list::notify_updated(const Module_ids* modules, bool forced) const {
    bool all = true;
    for (const NV_waiter_reg& r : _regs) all &= r.send_event(modules, forced);
    return all;
}

} // namespace NV_store
