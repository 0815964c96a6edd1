// SPDX-License-Identifier: MIT
#include "glue/diner/waiter_ref.h"
#include "util/Debug_print.h"
#include "util/Mutex.h"
#include <map>

namespace {

/// All references that lead to a waiter. Never destroyed: waiters and their holders may be statics of the application.
struct References {
    using Key = std::pair<const waiter_descriptor*, waiter_ref_base*>;

    static References& all() {
        static References& the_one = *new References;
        return the_one;
    }
    Mutex mutex; ///< a leaf
    std::map<Key, waiter_ref_base::Holder> holders;
};

} // namespace

void waiter_ref_base::set(waiter_descriptor* w, Holder holder) {
    if (!w && !get()) return; // most references end like this
    References& all = References::all();
    const Scoped_lock held(all.mutex);
    if (waiter_descriptor* const before = get()) all.holders.erase({before, this});
    if (w) all.holders[{w, this}] = holder;
    _waiter.store(w, std::memory_order_relaxed);
}

void waiter_ref_base::detach_all(waiter_descriptor* w) {
    int counts[num_holders] = {};
    {
        References& all = References::all();
        const Scoped_lock held(all.mutex);
        auto at = all.holders.lower_bound({w, nullptr});
        if (at == all.holders.end() || at->first.first != w) return;
        for (; at != all.holders.end() && at->first.first == w; at = all.holders.erase(at)) {
            at->first.second->_waiter.store(nullptr, std::memory_order_relaxed);
            ++counts[at->second];
        }
    }
    Debug_print::dprint("Waiter %p dies while it is registered with streams %d, ranges %d, settings %d\n",
                        static_cast<void*>(w), counts[stream], counts[range], counts[setting]);
}
