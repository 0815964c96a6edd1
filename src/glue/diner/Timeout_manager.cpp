// SPDX-License-Identifier: MIT
#include "glue/diner/Timeout_manager.h"
#include "util/Debug_base.h"
#include "util/Debug_print.h"
#include "util/assertion.h"
#include <algorithm>
#include <utility>
#include <vector>

namespace {

/// The order of the trees: that of timeouts_compare(), cheaper. Of equal ones the tree takes the lower address first.
int by_expiry(const Timeout* a, const Timeout* b) { return (a->ms() > b->ms()) - (a->ms() < b->ms()); }

/// Become the instant `ms` [ms] after the epoch, or the first or last one that there is.
void set_ms(Atime& at, int64_t ms) {
    ms = std::clamp(ms, int64_t{INT32_MIN} * 1000, int64_t{INT32_MAX} * 1000 + 999);
    const int64_t seconds = (ms >= 0 ? ms : ms - 999) / 1000;
    at.time = static_cast<int32_t>(seconds);
    at.millitm = static_cast<uint16_t>(ms - seconds * 1000);
}

std::atomic<uint32_t> passes{0}; // begun so far, by all managers: a timeout may move from one to another

/// Without the mutex held.
void report_failure() { Debug_print::dprint("Failed to remove timeout, did client get right Diner?\n"); }

} // namespace

Timeout_manager::Timeout_manager() { alive.create<by_expiry>(); }

Timeout_manager::~Timeout_manager() {
    const Scoped_lock held(_mutex);
    empty(false);
}

int Timeout_manager::timeouts_compare(const Timeout* a, const Timeout* b) {
    const int d = a->expiry - b->expiry;
    if (d != 0) return d;
    const auto x = reinterpret_cast<uintptr_t>(a), y = reinterpret_cast<uintptr_t>(b);
    return (x > y) - (x < y);
}

int Timeout_manager::submit_timeout(Timeout& t, const Atime* when, Diner* owner) {
    return submit(t, when, nullptr, owner);
}

int Timeout_manager::submit_timeout_in(Timeout& t, int ms, Diner* owner) { return submit(t, nullptr, &ms, owner); }

int Timeout_manager::submit(Timeout& t, const Atime* when, const int* ms, Diner* owner) {
    bool removed;
    {
        const Scoped_lock held(_mutex);
        if (owner) t.diner = owner;
        removed = set_free(t);
        if (removed) {
            if (when) t.expiry = *when;
            // What is submitted after a step is not to move with what was submitted before.
            if (ms || t.period > 0 || Util::Clock_offset::watched()) {
                const Atime current = now();
                if (ms) t.expiry = current + *ms;
                if (t.period > 0 && current - t.expiry >= t.period) t.expiry = current;
            }
            t._submitted = true;
            t._holder.store(this, std::memory_order_relaxed);
            make_pending(t);
        }
    }
    if (!removed) {
        report_failure();
        return -1;
    }
    print();
    return 0;
}

/// The time of day. Where it is watched and was set, what is here has moved along.
Atime Timeout_manager::now() {
    struct timespec read;
    const int64_t step = _clock.look(read);
    if (step != 0) move_all(step);
    Atime current(false);
    current.time = static_cast<int32_t>(read.tv_sec);
    current.millitm = static_cast<uint16_t>(read.tv_nsec / 1000000);
    current.timezone = current.dstflag = 0;
    return current;
}

int Timeout_manager::remove_timeout(Timeout& t, bool unbind) {
    bool removed;
    {
        const Scoped_lock held(_mutex);
        if (unbind) t.diner = nullptr;
        removed = set_free(t);
    }
    if (!removed) report_failure();
    print();
    return removed ? 0 : -1;
}

bool Timeout_manager::internal_remove(Timeout& t) {
    bool removed;
    {
        const Scoped_lock held(_mutex);
        removed = set_free(t);
    }
    if (!removed) report_failure();
    return removed;
}

bool Timeout_manager::set_free(Timeout& t) {
    if (&t == cur_expired_timeout) cur_expired_timeout = nullptr;
    const Timeout_manager* holder = t._holder.load(std::memory_order_relaxed);
    if (!holder) return !t.in_tree(); // or somebody else's tree has it
    if (holder != this || !take_out(t)) return false;
    t._holder.store(nullptr, std::memory_order_release);
    return true;
}

/// Out of wherever it is here; false when the order of its tree is corrupted.
bool Timeout_manager::take_out(Timeout& t) {
    if (t._list) {
        t._list->remove(t);
    } else if (alive.remove(&t) != 0) {
        return false;
    }
    if (t.ms() == _next.load(std::memory_order_relaxed)) _next.store(unknown, std::memory_order_release);
    return true;
}

void Timeout_manager::make_pending(Timeout& t) {
    t._handed_out = false;
    _unsorted.push(t);
    if (t.ms() < _next.load(std::memory_order_relaxed)) _next.store(t.ms(), std::memory_order_release);
}

void Timeout_manager::sort_in() {
    constexpr int few = 32;
    if (_unsorted.count() > std::max(few, _sorted.count() / 8)) return _sorted.merge_sorted(_unsorted);
    while (Timeout* t = _unsorted.first()) {
        _unsorted.remove(*t);
        alive.insert(t);
    }
}

/// The earliest pending timeout that is not held back.
Timeout* Timeout_manager::first() {
    sort_in();
    Timeout *a = _sorted.first(), *b = alive.first();
    return a && (!b || Timeout_list::before(*a, *b)) ? a : b;
}

void Timeout_manager::release_held() {
    while (Timeout* t = _held.first()) {
        _held.remove(*t);
        _unsorted.push(*t);
    }
}

/// The earliest pending timeout, as all but a pass see it.
Timeout* Timeout_manager::earliest() {
    release_held();
    return first();
}

int64_t Timeout_manager::next() {
    if (_next.load(std::memory_order_relaxed) == unknown) {
        const Timeout* t = earliest();
        _next.store(t ? t->ms() : none_pending, std::memory_order_release);
    }
    return _next.load(std::memory_order_relaxed);
}

bool Timeout_manager::next_expiry(Atime& expiry) {
    int64_t ms = _next.load(std::memory_order_acquire);
    if (ms == unknown) {
        const Scoped_lock held(_mutex);
        ms = next();
    }
    print();
    if (ms == none_pending) return false;
    set_ms(expiry, ms);
    return true;
}

Timeout* Timeout_manager::next_timeout() {
    Timeout* t = get_timeout(false, false);
    print();
    return t;
}

Timeout* Timeout_manager::get_timeout(bool only_expired, bool take) {
    const Scoped_lock held(_mutex);
    return get_timeout_locked(only_expired, take);
}

Timeout* Timeout_manager::get_timeout_locked(bool only_expired, bool take) {
    if (only_expired) {
        const Atime current = now(); // before next(), which it may change
        if (next() > Timeout::ms_of(current)) return nullptr;
    }
    Timeout* t = earliest();
    return t && take ? hand_out(t) : t;
}

/// Move the earliest pending timeout to the handed-out ones.
Timeout* Timeout_manager::hand_out(Timeout* t) {
    if (!take_out(*t)) return nullptr;
    t->_handed_out = true;
    t->_submitted = false;
    dead.push(*t);
    return t;
}

Timeout* Timeout_manager::expired_timeout() {
    Timeout* t;
    {
        const Scoped_lock held(_mutex);
        t = get_timeout_locked(true, true);
        cur_expired_timeout = t;
        _stepped = 0;
    }
    print();
    return t;
}

Timeout_manager::Pass Timeout_manager::begin_pass() {
    const Scoped_lock held(_mutex);
    release_held();
    Pass pass;
    pass._begin = now(); // before the number of steps, which it may change
    pass._number = passes.fetch_add(1, std::memory_order_relaxed) + 1;
    pass._steps = _steps;
    pass._left = _unsorted.count() + _sorted.count() + alive.count() + Pass::max_new;
    return pass;
}

/// The earliest pending timeout that is not held back, if it was due when the pass began.
Timeout* Timeout_manager::first_due(const Pass& pass) {
    const int64_t least = _next.load(std::memory_order_relaxed), begin = Timeout::ms_of(pass._begin);
    if (pass._steps != _steps || pass._left <= 0 || least > begin) return nullptr;
    Timeout* t = first();
    return t && (least != unknown || t->ms() <= begin) ? t : nullptr;
}

Timeout* Timeout_manager::expired_timeout(Pass& pass) {
    Timeout* t;
    {
        const Scoped_lock held(_mutex);
        if (pass._last && pass._last == cur_expired_timeout) reschedule(*pass._last);
        while ((t = first_due(pass)) && t->_submitted && t->_pass == pass._number && take_out(*t)) _held.push(*t);
        if (t) {
            pass._remaining_ms = t->expiry - pass._begin;
            pass._left -= t->_submitted;
            t->_pass = pass._number;
            t = hand_out(t);
        } else {
            next();
        }
        cur_expired_timeout = pass._last = t;
        _stepped = 0;
    }
    print();
    return t;
}

bool Timeout_manager::reschedule_periodic_timeout(Timeout& t) {
    const Scoped_lock held(_mutex);
    if (!cur_expired_timeout) return false;
    if (&t != cur_expired_timeout)
        Util::assertion_failed("&timeout == cur_expired_timeout", "glue/diner/Timeout_manager", 77,
                               "bool Timeout_manager::reschedule_periodic_timeout(Timeout&)");
    return reschedule(t);
}

/// The one handed out last, after its handler.
bool Timeout_manager::reschedule(Timeout& t) {
    cur_expired_timeout = nullptr;
    if (t.period < 1 || !take_out(t)) return false;
    set_ms(t.expiry, t.ms() + t.period + _stepped);
    make_pending(t);
    return true;
}

void Timeout_manager::clock_stepped(int64_t ms) {
    const Scoped_lock held(_mutex);
    if (Util::Clock_offset::watched()) {
        now();
    } else {
        move_all(ms);
    }
}

void Timeout_manager::move_all(int64_t ms) {
    ++_steps;
    _stepped += ms;
    Timeout_list all;
    for (Timeout_list* list : {&_unsorted, &_sorted, &_held}) {
        while (Timeout* t = list->first()) {
            list->remove(*t);
            all.push(*t);
        }
    }
    for (Timeout* t; (t = alive.first()) && alive.remove(t) == 0;) all.push(*t);
    _next.store(none_pending, std::memory_order_release);
    while (Timeout* t = all.first()) {
        all.remove(*t);
        set_ms(t->expiry, t->ms() + ms);
        make_pending(*t);
    }
}

bool Timeout_manager::submitted(const Timeout& t) const {
    const Scoped_lock held(_mutex);
    return t._holder.load(std::memory_order_relaxed) == this && !t._handed_out;
}

bool Timeout_manager::holds(const Timeout& t) const {
    const Scoped_lock held(_mutex);
    return t._holder.load(std::memory_order_relaxed) == this;
}

void Timeout_manager::terminate() {
    const Scoped_lock held(_mutex);
    cur_expired_timeout = nullptr;
    empty(true);
}

void Timeout_manager::empty(bool unbind) {
    for (Timeout_list* list : {&_unsorted, &_sorted, &_held, &dead}) {
        while (Timeout* t = list->first()) {
            list->remove(*t);
            release(*t, unbind);
        }
    }
    // Where an owner that wrote to the expiry of a listed timeout has corrupted the order: no endless loop.
    for (Timeout* t; (t = alive.first()) && alive.remove(t) == 0;) release(*t, unbind);
    _next.store(none_pending, std::memory_order_release);
}

/// The manager's last access to `t`.
void Timeout_manager::release(Timeout& t, bool unbind) {
    if (unbind) t.diner = nullptr;
    t._holder.store(nullptr, std::memory_order_release);
}

void Timeout_manager::print() const {
    if (!Debug_filter::enabled(_JDB::jdb_timeout)) return;
    const Scoped_lock held(_mutex);
    print_all();
}

/// In order, but without putting them in order: whether somebody looks must not change what happens next.
void Timeout_manager::print_all() const {
    const auto print_in_order = [](std::vector<const Timeout*> all) {
        std::sort(all.begin(), all.end(),
                  [](const Timeout* a, const Timeout* b) { return Timeout_list::before(*a, *b); });
        for (const Timeout* t : all) t->print();
    };
    std::vector<const Timeout*> pending, handed_out;
    for (const Timeout& t : alive) pending.push_back(&t);
    for (const Timeout_list* list : {&_unsorted, &_sorted, &_held}) {
        for (const Timeout* t = list->first(); t; t = t->_after) pending.push_back(t);
    }
    for (const Timeout* t = dead.first(); t; t = t->_after) handed_out.push_back(t);
    Debug_print::dprint("Alive timeouts:\r\n");
    Debug_print::dprint("---------------\r\n");
    print_in_order(std::move(pending));
    Debug_print::dprint("Dead timeouts:\r\n");
    Debug_print::dprint("--------------\r\n");
    print_in_order(std::move(handed_out));
    Debug_print::dprint("\r\n");
}
