// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diner/Timeout.h"
#include "util/Mutex.h"
#include "util/api.h"
#include "util/avl_bstree.h"
#include <atomic>
#include <cstdint>

/// The pending and the handed-out timeouts of one diner, each a tree ordered by expiry, then address.
///
/// Handlers run on the diner's thread under the diner's lock; other threads submit and remove without it. A private
/// leaf mutex guards the trees; it is never held while a handler runs. Any thread may call any member, except
/// expired_timeout() and reschedule_periodic_timeout(), which belong to the diner's thread.
class KAV_API Timeout_manager {
public:
    Timeout_manager();
    ~Timeout_manager(); ///< empties both trees; the timeouts keep their diner
    Timeout_manager(const Timeout_manager&) = delete;
    Timeout_manager& operator=(const Timeout_manager&) = delete;

    /// Make `t` pending, at `*when` if given. A periodic timeout whose expiry lies a period or more in the past becomes
    /// due now. `owner`, if given, becomes the timeout's diner in the same step, also when the result is -1. 0; -1 when
    /// it is in another manager's trees. O(log n)
    int submit_timeout(Timeout& t, const Atime* when, Diner* owner = nullptr);
    /// Make `t` free, with `unbind` also of its diner (also when the result is -1). 0; -1 when it is in another
    /// manager's trees. O(log n)
    int remove_timeout(Timeout& t, bool unbind = false);
    /// The earliest pending timeout, left in place; null when there is none. O(1)
    Timeout* next_timeout();
    /// Its expiry, for callers that race with other threads; takes no lock. False when there is none. O(1)
    bool next_expiry(Atime& expiry) const;
    /// The earliest pending timeout if it is due, now handed out; null otherwise. O(log n)
    Timeout* expired_timeout();
    /// One pass of a diner over its timeouts: what is pending and due when it begins, missed periods included. It ends
    /// at a timeout that was submitted since, so that a handler slower than its period, or one that submits its timeout
    /// due again, cannot keep the diner from its events.
    class Pass {
    public:
        /// When the timeout handed out last was due: its own expiry may already be another, set by another thread.
        const Atime& expiry() const { return _expiry; }

    private:
        friend class Timeout_manager;
        Pass(const Atime& begin, uint32_t submissions) : _until(begin), _expiry(begin), _submissions(submissions) {}
        Atime _until;
        Atime _expiry;
        uint32_t _submissions;
    };
    Pass begin_pass() const;
    /// expired_timeout() within a pass; null at its end.
    Timeout* expired_timeout(Pass& pass);
    /// After the handler: a periodic timeout becomes pending again one period after its last expiry, so it keeps its
    /// phase and catches up on missed periods. True when it did; false for a one-shot timeout, or one that was removed
    /// or submitted since it was handed out (`t` is not touched then: it may be gone).
    bool reschedule_periodic_timeout(Timeout& t);
    bool submitted(const Timeout& t) const; ///< pending here. O(log n)
    bool holds(const Timeout& t) const;     ///< pending or handed out here. O(1)
    /// Make every timeout free and clear its diner. O(n log n)
    void terminate();

    /// The earliest pending timeout; with `only_expired` only when due; with `take` moved to the handed-out ones.
    Timeout* get_timeout(bool only_expired, bool take);
    static int timeouts_compare(const Timeout* a, const Timeout* b);
    /// Both lists on the debug output when category 50 is on. Holds the mutex meanwhile: a debug output that blocks
    /// holds up whoever submits.
    void print() const;

private:
    using Tree = c_bstree<avl_bstree, Timeout>;

    Timeout* get_timeout_locked(bool only_expired, bool take);
    Timeout* hand_out(Timeout* t);
    bool take_out(Timeout& t);
    bool internal_remove(Timeout& t);
    void empty(Tree& tree, bool unbind);
    void publish_next();

    static constexpr uint64_t none_pending = ~uint64_t(0);

    Timeout own;
    Timeout* cur_expired_timeout = nullptr; ///< handed out last; cleared when it is removed or submitted meanwhile
    Tree alive;
    Tree dead;
    uint32_t _submissions = 0; ///< so far
    mutable Mutex _mutex;
    /// The earliest expiry, packed, so that the diner's loop need not lock for each event. A submit is followed by a
    /// wake-up, so a loop that read the old value reads again.
    std::atomic<uint64_t> _next{none_pending};
};
