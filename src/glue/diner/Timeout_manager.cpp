// SPDX-License-Identifier: MIT
#include "glue/diner/Timeout_manager.h"
#include "util/Debug_base.h"
#include "util/Debug_print.h"
#include "util/assertion.h"
#include <mutex>

namespace {

using Guard = std::lock_guard<Mutex>;

/// Printed without the mutex held.
int report(bool removed) {
    if (!removed) Debug_print::dprint("Failed to remove timeout, did client get right Diner?\n");
    return removed ? 0 : -1;
}

} // namespace

Timeout_manager::Timeout_manager() {
    alive.create<timeouts_compare>();
    dead.create<timeouts_compare>();
}

Timeout_manager::~Timeout_manager() {
    const Guard guard(_mutex);
    empty(alive, false);
    empty(dead, false);
}

int Timeout_manager::timeouts_compare(const Timeout* a, const Timeout* b) {
    const int d = a->expiry - b->expiry;
    if (d != 0) return d;
    const auto x = reinterpret_cast<uintptr_t>(a), y = reinterpret_cast<uintptr_t>(b);
    return x < y ? -1 : x > y;
}

int Timeout_manager::submit_timeout(Timeout& t, const Atime* when, Diner* owner) {
    bool removed;
    {
        const Guard guard(_mutex);
        if (owner) t.diner = owner;
        removed = internal_remove(t);
        if (removed) {
            if (when) t.expiry = *when;
            if (t.period > 0) {
                const Atime now = Atime::now();
                if (now - t.expiry >= t.period) t.expiry = now;
            }
            t._holder.store(this, std::memory_order_relaxed);
            t._submission = ++_submissions;
            alive.insert(&t);
            publish_next();
        }
    }
    const int result = report(removed);
    print();
    return result;
}

int Timeout_manager::remove_timeout(Timeout& t, bool unbind) {
    bool removed;
    {
        const Guard guard(_mutex);
        if (unbind) t.diner = nullptr;
        removed = internal_remove(t);
    }
    const int result = report(removed);
    print();
    return result;
}

bool Timeout_manager::take_out(Timeout& t) {
    if (t.in_tree()) dead.remove(&t);
    if (t.in_tree()) {
        alive.remove(&t);
        publish_next();
    }
    return !t.in_tree();
}

bool Timeout_manager::internal_remove(Timeout& t) {
    if (&t == cur_expired_timeout) cur_expired_timeout = nullptr;
    if (!take_out(t)) return false;
    t._holder.store(nullptr, std::memory_order_release);
    return true;
}

void Timeout_manager::publish_next() {
    const Timeout* t = alive.first();
    const uint64_t packed =
        t ? uint64_t(static_cast<uint32_t>(t->expiry.time)) << 16 | t->expiry.millitm : none_pending;
    _next.store(packed, std::memory_order_release);
}

bool Timeout_manager::next_expiry(Atime& expiry) const {
    const uint64_t packed = _next.load(std::memory_order_acquire);
    print();
    if (packed == none_pending) return false;
    expiry.time = static_cast<int32_t>(packed >> 16);
    expiry.millitm = static_cast<uint16_t>(packed);
    return true;
}

Timeout* Timeout_manager::next_timeout() {
    Timeout* t = get_timeout(false, false);
    print();
    return t;
}

Timeout* Timeout_manager::expired_timeout() {
    Timeout* t;
    {
        const Guard guard(_mutex);
        cur_expired_timeout = t = get_timeout_locked(true, true);
    }
    print();
    return t;
}

Timeout_manager::Pass Timeout_manager::begin_pass() const {
    const Guard guard(_mutex);
    return Pass(Atime::now(), _submissions);
}

Timeout* Timeout_manager::expired_timeout(Pass& pass) {
    Timeout* t;
    {
        const Guard guard(_mutex);
        t = alive.first();
        if (t) {
            // A clock that was set back since the pass began makes due later what was due then.
            const Atime now = Atime::now();
            if (now < pass._until) pass._until = now;
            const bool submitted_since = static_cast<int32_t>(t->_submission - pass._submissions) > 0;
            pass._expiry = t->expiry;
            t = t->expiry > pass._until || submitted_since ? nullptr : hand_out(t);
        }
        cur_expired_timeout = t;
    }
    print();
    return t;
}

Timeout* Timeout_manager::get_timeout(bool only_expired, bool take) {
    const Guard guard(_mutex);
    return get_timeout_locked(only_expired, take);
}

Timeout* Timeout_manager::get_timeout_locked(bool only_expired, bool take) {
    Timeout* t = alive.first();
    if (!t || (only_expired && t->remaining_ms() > 0)) return nullptr;
    return take ? hand_out(t) : t;
}

/// Move the earliest pending timeout to the handed-out ones.
Timeout* Timeout_manager::hand_out(Timeout* t) {
    if (alive.remove(t) != 0) return nullptr;
    dead.insert(t);
    publish_next();
    return t;
}

bool Timeout_manager::reschedule_periodic_timeout(Timeout& t) {
    const Guard guard(_mutex);
    if (!cur_expired_timeout) return false;
    if (&t != cur_expired_timeout)
        Util::assertion_failed("&timeout == cur_expired_timeout", "glue/diner/Timeout_manager", 77,
                               "bool Timeout_manager::reschedule_periodic_timeout(Timeout&)");
    cur_expired_timeout = nullptr;
    if (t.period < 1 || !take_out(t)) return false;
    t.expiry += t.period;
    const bool inserted = alive.insert(&t) == 0;
    publish_next();
    return inserted;
}

bool Timeout_manager::submitted(const Timeout& t) const {
    const Guard guard(_mutex);
    return t.in_tree() && alive.find(&t, bst_this) != nullptr;
}

bool Timeout_manager::holds(const Timeout& t) const {
    const Guard guard(_mutex);
    return t._holder.load(std::memory_order_relaxed) == this;
}

void Timeout_manager::terminate() {
    const Guard guard(_mutex);
    cur_expired_timeout = nullptr;
    empty(alive, true);
    empty(dead, true);
    publish_next();
}

void Timeout_manager::empty(Tree& tree, bool unbind) {
    // An owner that wrote to the expiry of a listed timeout has spoilt the order: leave then rather than loop for ever.
    for (Timeout* t; (t = tree.first()) && tree.remove(t) == 0;) {
        if (unbind) t->diner = nullptr;
        t->_holder.store(nullptr, std::memory_order_release);
    }
}

void Timeout_manager::print() const {
    if (!Debug_filter::enabled(_JDB::jdb_timeout)) return;
    const Guard guard(_mutex);
    Debug_print::dprint("Alive timeouts:\r\n");
    Debug_print::dprint("---------------\r\n");
    for (const Timeout& t : alive) t.print();
    Debug_print::dprint("Dead timeouts:\r\n");
    Debug_print::dprint("--------------\r\n");
    for (const Timeout& t : dead) t.print();
    Debug_print::dprint("\r\n");
}
