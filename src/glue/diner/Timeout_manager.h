// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diner/Timeout.h"
#include "util/Mutex.h"
#include "util/api.h"
#include "util/avl_bstree.h"

/// The pending and the handed-out timeouts of one diner, each a tree ordered by expiry, then address.
///
/// Handlers run on the diner's thread under the diner's lock; other threads submit and remove without it. A private
/// leaf mutex guards the trees and is never held while a handler runs or text is printed. Any thread may call any
/// member, except expired_timeout() and reschedule_periodic_timeout(), which belong to the diner's thread.
class KAV_API Timeout_manager {
public:
    Timeout_manager();
    ~Timeout_manager(); ///< empties both trees; the timeouts keep their diner
    Timeout_manager(const Timeout_manager&) = delete;
    Timeout_manager& operator=(const Timeout_manager&) = delete;

    /// Make `t` pending, at `*when` if given. A periodic timeout whose expiry lies a period or more in the past becomes
    /// due now. 0; -1 when it is in another manager's trees. O(log n)
    int submit_timeout(Timeout& t, const Atime* when);
    /// Make `t` free. 0; -1 when it is in another manager's trees. O(log n)
    int remove_timeout(Timeout& t);
    /// The earliest pending timeout, left in place; null when there is none. O(1)
    Timeout* next_timeout();
    /// Its expiry, read under the lock: for callers that race with other threads. False when there is none. O(1)
    bool next_expiry(Atime& expiry) const;
    /// The earliest pending timeout if it is due, now handed out; null otherwise. O(log n)
    Timeout* expired_timeout();
    /// The same, but only what was due at `until`: one pass of a diner handles what was due when the pass began.
    Timeout* expired_timeout(const Atime& until);
    /// After the handler: a periodic timeout becomes pending again one period after its last expiry, so it keeps its
    /// phase and catches up on missed periods. True when it did; false for a one-shot timeout, or one that the handler
    /// removed or submitted itself.
    bool reschedule_periodic_timeout(Timeout& t);
    bool submitted(const Timeout& t) const; ///< pending here. O(log n)
    /// Make every timeout free and clear its diner. O(n)
    void terminate();

    /// The earliest pending timeout; with `only_expired` only when due; with `take` moved to the handed-out ones.
    Timeout* get_timeout(bool only_expired, bool take);
    static int timeouts_compare(const Timeout* a, const Timeout* b);
    /// Both lists on the debug output when category 50 is on.
    void print() const;

private:
    Timeout* get_timeout_locked(const Atime* until, bool take);
    bool internal_remove(Timeout& t);

    using Tree = c_bstree<avl_bstree, Timeout>;
    Timeout own;
    Timeout* cur_expired_timeout = nullptr;
    Tree alive;
    Tree dead;
    mutable Mutex _mutex;
};
