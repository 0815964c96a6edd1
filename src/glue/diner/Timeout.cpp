// SPDX-License-Identifier: MIT
#include "glue/diner/Timeout.h"
#include "glue/diner/Diner.h"
#include "util/Debug_print.h"
#include "util/assertion.h"

namespace {

constexpr const char* source = "glue/diner/Timeout";

void warn_constructed_in_list(const Timeout& t) {
    if (t.in_tree()) Debug_print::dprint("Constructed over timeout while in a list\n");
}

} // namespace

Timeout::Timeout() : Timeout(Atime::now()) {}

Timeout::Timeout(const Atime& when) : expiry(when) { warn_constructed_in_list(*this); }

Timeout::Timeout(const Timeout& o) : avl_bsnode(), expiry(o.expiry), uid(o.uid), period(o.period) {
    warn_constructed_in_list(*this);
}

Timeout& Timeout::operator=(const Atime& when) {
    if (in_list()) {
        Debug_print::try_print("Tried to change timeout time while in a list\n");
        Util::assertion_failed("!in_list()", source, 85, "Timeout& Timeout::operator=(const Atime&)");
    }
    expiry = when;
    return *this;
}

Timeout& Timeout::operator=(const Timeout& o) {
    if (in_list()) {
        Debug_print::try_print("Tried to copy over timeout while in a list\n");
        Util::assertion_failed("!in_list()", source, 75, "Timeout& Timeout::operator=(const Timeout&)");
    }
    expiry = o.expiry;
    uid = o.uid;
    period = o.period;
    return *this;
}

Timeout::~Timeout() {
    if (!in_list()) return;
    if (Diner* d = diner) {
        Debug_print::dprint("Destruct %p %p\n", static_cast<void*>(this), static_cast<void*>(d));
        d->remove_from_lists(*this);
    }
    // Without a diner it may be one that is just being dropped by a stopping diner: let that end before judging.
    Timeout_manager* holder = _holder.load(std::memory_order_acquire);
    if (holder ? !holder->holds(*this) : !in_tree()) return;
    Debug_print::try_print("Tried to destruct timeout while in a list\n");
    Util::assertion_failed("!in_list()", source, 66, "Timeout::~Timeout()");
}

bool Timeout::submitted() const {
    const Diner* d = diner;
    return d && d->submitted(*this);
}

void Timeout::print() const {
    Debug_print::dprint("uid: %d, type: %d, nid: %p, per: %d till_expiry: %ld\r\n", uid, 0,
                        static_cast<const void*>(this), period, static_cast<long>(remaining_ms()));
}
