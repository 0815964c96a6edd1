// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"
#include "util/atime.h"
#include "util/avl_bstree.h"

class Diner;

/// A request to be called at an instant, once or periodically. The caller owns it and hands it to
/// Diner::submit_timeout(); while it is submitted it must not be copied over, re-timed or moved. Destroying it
/// withdraws it.
///
/// A timeout is free (in no list), pending, or handed out: a one-shot timeout that fired stays handed out until it is
/// removed, submitted again or its diner stops.
///
/// The diner outlives it, or it is removed before the diner goes: submitted() and the destructor ask the diner.
class KAV_API Timeout : public avl_bsnode {
public:
    Timeout();                           ///< due now, one-shot
    explicit Timeout(const Atime& when); ///< due at `when`, one-shot
    Timeout(const Timeout& o);           ///< expiry, uid and period of the other; free
    /// Re-time. Aborts while in a list.
    Timeout& operator=(const Atime& when);
    /// Expiry, uid and period of the other. Aborts while in a list.
    Timeout& operator=(const Timeout& o);
    ~Timeout(); ///< withdraws it; aborts when it is still in a list afterwards

    void invalidate() { period = 0; } ///< it will not be rescheduled
    void set_diner(Diner* d) { diner = d; }
    bool submitted() const; ///< pending at its diner. Takes the diner's lock unless the caller holds it.
    int remaining_ms() const { return expiry.get_ms_from_now(); } ///< [ms] until due, negative when overdue
    /// One line on the debug output.
    void print() const;

    Atime expiry;
    int uid = 0;            ///< for the owner's use
    int period = 0;         ///< [ms] > 0: periodic; above a week a stale expiry is not snapped to now
    Diner* diner = nullptr; ///< where it was last submitted
};
