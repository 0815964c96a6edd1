// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"
#include <atomic>

class waiter_descriptor;

/// What all references to waiters have in common; see waiter_ref.
class KAV_API waiter_ref_base {
public:
    /// What the waiter is registered with.
    enum Holder { stream, range, setting, num_holders };

    waiter_ref_base(const waiter_ref_base&) = delete;

    /// Null when there is none, or none any more.
    waiter_descriptor* get() const { return _waiter.load(std::memory_order_relaxed); }
    operator waiter_descriptor*() const { return get(); }

    /// Clear every reference to `w`, which is about to die, and say on the debug output how many there were, if any.
    static void detach_all(waiter_descriptor* w);

protected:
    waiter_ref_base() = default;
    ~waiter_ref_base() { set(nullptr, num_holders); }
    void set(waiter_descriptor* w, Holder holder);

private:
    std::atomic<waiter_descriptor*> _waiter{nullptr};
};

/// The pointer of a registration to its waiter, as large as a plain one. It becomes null when the waiter dies, so that
/// a registration that was forgotten leads nowhere rather than into freed memory.
///
/// Reading takes no lock and costs what a plain pointer costs. Changes are entered in a list of the process, under a
/// lock that nothing is called out of; that list allocates. Whoever reads a pointer and posts while another thread
/// destroys the waiter still has no luck: only taking the registration back under the holder's lock prevents that.
template <waiter_ref_base::Holder holder>
class waiter_ref : public waiter_ref_base {
public:
    waiter_ref() = default;
    waiter_ref(waiter_descriptor* w) { set(w, holder); }
    waiter_ref(const waiter_ref& o) : waiter_ref(o.get()) {}
    waiter_ref& operator=(const waiter_ref& o) { return *this = o.get(); }
    waiter_ref& operator=(waiter_descriptor* w) {
        set(w, holder);
        return *this;
    }
};
