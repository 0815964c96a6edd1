// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"
#include "util/atime.h"
#include "util/avl_bstree.h"
#include <atomic>

class Diner;
class Timeout_list;
class Timeout_manager;

/// A request to be called at an instant, once or periodically. The caller owns it and hands it to
/// Diner::submit_timeout(); while it is submitted it must not be copied over, re-timed or moved. Destroying it
/// withdraws it, from any thread: the destructor takes the diner's lock and so waits for a handler that is using it.
///
/// A timeout is free, which means in no list, pending or handed out. A one-shot timeout that fired stays handed out
/// until it is removed, is submitted again or its diner stops. in_tree() is true while it is pending or handed out, so
/// that another tree refuses it then.
///
/// The diner outlives it, or it is removed before the diner goes: submitted() and the destructor ask the diner. While
/// it is in a list, threads other than the diner's read and write its fields under the diner's lock.
class KAV_API Timeout : public avl_bsnode {
public:
    Timeout();                  ///< due now, one-shot
    Timeout(const Atime& when); ///< due at `when`, one-shot
    Timeout(const Timeout& o);  ///< expiry, uid and period of the other; free
    /// Re-time. Aborts while in a list.
    Timeout& operator=(const Atime& when);
    /// Expiry, uid and period of the other. Aborts while in a list.
    Timeout& operator=(const Timeout& o);
    ~Timeout(); ///< withdraws it; aborts when it is still in a list afterwards

    void invalidate() { period = 0; } ///< it will not be rescheduled
    void set_diner(Diner* d) { diner = d; }
    bool submitted() const; ///< pending at its diner. Takes the diner's lock unless the caller holds it.
    int remaining_ms() const { return expiry.get_ms_from_now(); } ///< [ms] until due, negative when overdue
    /// An instant, and the expiry, as one number [ms] that is cheap to compare.
    static int64_t ms_of(const Atime& t) { return int64_t{t.time} * 1000 + t.millitm; }
    int64_t ms() const { return ms_of(expiry); }
    /// One line on the debug output.
    void print() const;

    Atime expiry;                       ///< not written directly while in a list: it is the order there
    int uid = 0;                        ///< for the owner's use
    int period = 0;                     ///< [ms] > 0: periodic; above a week a stale expiry is not snapped to now
    std::atomic<Diner*> diner{nullptr}; ///< where it was last submitted

private:
    friend class Timeout_manager;
    friend class Timeout_list;
    /// Also when another owner's tree has it. Without a manager its links are at rest, else they are not looked at.
    bool in_list() const { return _holder.load(std::memory_order_acquire) || in_tree(); }

    /// The manager that has it; the owner's thread may look at it without a lock. It stays as it is while the manager
    /// moves the timeout from one place to another, and to clear it is the manager's last access.
    std::atomic<Timeout_manager*> _holder{nullptr};
    uint32_t _pass = 0;      ///< the one that it was handed out in last
    bool _submitted = false; ///< since it was handed out last; not: rescheduled
    bool _handed_out = false;
    Timeout_list* _list = nullptr; ///< the one it is in; null while it is in a tree
    Timeout *_before = nullptr, *_after = nullptr;
};
