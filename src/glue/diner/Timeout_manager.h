// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diner/Timeout.h"
#include "glue/diner/Timeout_list.h"
#include "util/Clock_offset.h"
#include "util/Mutex.h"
#include "util/api.h"
#include "util/avl_bstree.h"
#include <atomic>
#include <cstdint>

/// The pending timeouts of one diner, ordered by expiry, then address, and those handed out.
///
/// Handlers run on the diner's thread under the diner's lock; other threads submit and remove without it. A private
/// leaf mutex guards the lists; it is never held while a handler runs, and nothing but the debug output is called with
/// it held. Any thread may call any member, except expired_timeout() and reschedule_periodic_timeout(), which belong to
/// the diner's thread.
class KAV_INTERNAL Timeout_manager {
public:
    Timeout_manager();
    ~Timeout_manager(); ///< makes every timeout free; the timeouts keep their diner
    Timeout_manager(const Timeout_manager&) = delete;
    Timeout_manager& operator=(const Timeout_manager&) = delete;

    /// Make `t` pending, at `*when` if given. A periodic timeout whose expiry lies a period or more in the past becomes
    /// due now. `owner`, if given, becomes the timeout's diner in the same step, also when the result is -1. 0; -1 when
    /// it is another manager's, or in a tree of somebody else. O(1), and O(log n) once when its time comes: the first
    /// look at a great number of new ones puts all of them in order at once, and who submits meanwhile waits for it
    /// (on a desktop processor 20 ns each, beyond what the cache holds 150 ns).
    int submit_timeout(Timeout& t, const Atime* when, Diner* owner = nullptr);
    /// submit_timeout() in `ms` [ms]: where a Clock_watch is, however near the clock is set to that moment.
    int submit_timeout_in(Timeout& t, int ms, Diner* owner = nullptr);
    /// Make `t` free, with `unbind` also of its diner (also when the result is -1). 0; -1 when it is in another tree,
    /// as above. O(log n), mostly O(1)
    int remove_timeout(Timeout& t, bool unbind = false);
    /// The earliest pending timeout, left in place; null when there is none.
    Timeout* next_timeout();
    /// Its expiry, for callers that race with other threads. False when there is none. O(1) without a lock, except
    /// after the earliest was taken away.
    bool next_expiry(Atime& expiry);
    /// The earliest pending timeout if it is due, now handed out; null otherwise. O(log n)
    Timeout* expired_timeout();
    /// One pass of a diner over its timeouts, in order. It takes what is due when it begins, missed periods included,
    /// and what is submitted meanwhile for an instant that was due then.
    ///
    /// A pass always ends, so that the diner comes to its events. A timeout that ran in this pass and is submitted
    /// again waits for the next one; rescheduling by its period is no submission. So there are as many steps as there
    /// are timeouts and missed periods, whatever handlers submit and however slow they are. Handlers may keep making
    /// new timeouts for an instant long past: beyond those that were pending, a pass takes `max_new`. It also ends when
    /// the clock was stepped since.
    class Pass {
    public:
        /// [ms] from the begin of the pass until the timeout handed out last falls due: not positive. (Its own expiry
        /// may be another by now, set by another thread.)
        int remaining_ms() const { return _remaining_ms; }

    private:
        friend class Timeout_manager;
        static constexpr int max_new = 10000;
        Atime _begin{false};
        Timeout* _last = nullptr; ///< handed out, and not rescheduled yet
        uint32_t _number = 0;     ///< of all passes of the process
        uint32_t _steps = 0;
        int _left = 0; ///< that were submitted and may still be handed out
        int _remaining_ms = 0;
    };
    Pass begin_pass();
    /// expired_timeout() within a pass, and before that reschedule_periodic_timeout() for the one that this pass handed
    /// out last, in one step; null at its end.
    Timeout* expired_timeout(Pass& pass);
    /// After the handler: a periodic timeout becomes pending again one period after its last expiry, so it keeps its
    /// phase and catches up on missed periods. True when it did; false for a one-shot timeout, or one that was removed
    /// or submitted since it was handed out (`t` is not touched then: it may be gone).
    bool reschedule_periodic_timeout(Timeout& t);
    bool submitted(const Timeout& t) const; ///< pending here. O(1)
    bool holds(const Timeout& t) const;     ///< pending or handed out here. O(1)
    /// The clock was set by `ms` [ms]: every pending timeout moves with it, at most to the last instant that there is,
    /// and so does the next expiry of a periodic one whose handler is running. Where a Clock_watch is, `ms` does not
    /// count: a manager itself finds by how much whenever it looks at the clock, before it does anything else. O(n log
    /// n)
    ///
    /// The expiries change under the mutex alone: who looks at one of a pending timeout on another thread meanwhile may
    /// see it half changed.
    void clock_stepped(int64_t ms);
    /// Make every timeout free and clear its diner. O(n log n)
    void terminate();

    /// The earliest pending timeout; with `only_expired` only when due; with `take` moved to the handed-out ones.
    Timeout* get_timeout(bool only_expired, bool take);
    /// Make `t` free; false, with a message, when it is in another tree.
    bool internal_remove(Timeout& t);
    static int timeouts_compare(const Timeout* a, const Timeout* b);
    /// Both lists on the debug output when category 50 is on. Holds the mutex meanwhile: a debug output that blocks
    /// holds up whoever submits.
    void print() const;

private:
    using Tree = c_bstree<avl_bstree, Timeout>;
    static constexpr int64_t none_pending = INT64_MAX, unknown = INT64_MIN;

    int submit(Timeout& t, const Atime* when, const int* ms, Diner* owner);
    Atime now() KAV_REQUIRES(_mutex);
    void move_all(int64_t ms) KAV_REQUIRES(_mutex);
    bool set_free(Timeout& t) KAV_REQUIRES(_mutex);
    bool take_out(Timeout& t) KAV_REQUIRES(_mutex);
    void make_pending(Timeout& t) KAV_REQUIRES(_mutex);
    void sort_in() KAV_REQUIRES(_mutex);
    Timeout* first() KAV_REQUIRES(_mutex);
    void release_held() KAV_REQUIRES(_mutex);
    Timeout* earliest() KAV_REQUIRES(_mutex);
    int64_t next() KAV_REQUIRES(_mutex);
    bool reschedule(Timeout& t) KAV_REQUIRES(_mutex);
    Timeout* first_due(const Pass& pass) KAV_REQUIRES(_mutex);
    Timeout* get_timeout_locked(bool only_expired, bool take) KAV_REQUIRES(_mutex);
    Timeout* hand_out(Timeout* t) KAV_REQUIRES(_mutex);
    void release(Timeout& t, bool unbind) KAV_REQUIRES(_mutex);
    void empty(bool unbind) KAV_REQUIRES(_mutex);
    void print_all() const KAV_REQUIRES(_mutex);

    /// Handed out last; cleared when it is removed or submitted meanwhile.
    Timeout* cur_expired_timeout KAV_GUARDED_BY(_mutex) = nullptr;
    // Most timeouts are withdrawn or submitted anew before they fall due, so what is pending is put in order as late as
    // possible: when the earliest is due or asked for. New ones wait in `_unsorted`; then great numbers of them go to
    // `_sorted`, few at a time into the tree.
    Tree alive KAV_GUARDED_BY(_mutex);
    Timeout_list dead KAV_GUARDED_BY(_mutex); ///< handed out, in no order
    Timeout_list _unsorted KAV_GUARDED_BY(_mutex);
    Timeout_list _sorted KAV_GUARDED_BY(_mutex);
    /// Due, but for the next pass; while there are any, `_next` is unknown.
    Timeout_list _held KAV_GUARDED_BY(_mutex);
    uint32_t _steps KAV_GUARDED_BY(_mutex) = 0; ///< of the clock, so far
    Util::Clock_offset _clock KAV_GUARDED_BY(_mutex);
    /// [ms] by how much, since cur_expired_timeout was handed out.
    int64_t _stepped KAV_GUARDED_BY(_mutex) = 0;
    /// The earliest expiry [ms], readable without the mutex: the diner's loop asks for it at every event. A submission
    /// is followed by a wake-up, so a loop that has read the old value reads again.
    std::atomic<int64_t> _next{none_pending};
    mutable Mutex _mutex;
};
