// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diner/Trace.h"
#include "glue/diner/module_man.h"
#include "glue/diner/waiter_event.h"
#include "glue/diner/waiter_tokens.h"
#include "util/Mutex.h"
#include "util/api.h"
#include "util/atime.h"
#include <atomic>
#include <cstdint>

class QObject;
class waiter_sleeper;

/// The inbox of a diner: a queue of events and a semaphore with one token per pending delivery. Any thread may post:
/// the producers. One thread takes: the consumer.
///
/// The nodes come from a pool that all waiters of a module_man share. A waiter may queue at most half of what is free,
/// so that one stalled diner cannot starve the others: of a fresh pool of 1000 a lone waiter gets 334.
class KAV_API waiter_descriptor {
public:
    waiter_descriptor();
    /// Discards what is pending. No thread may be posting or waiting any more; a post lasts until its call returns,
    /// which may be after the event was taken.
    ~waiter_descriptor();
    waiter_descriptor(const waiter_descriptor&) = delete;
    waiter_descriptor& operator=(const waiter_descriptor&) = delete;

    /// Accept posts from now on; nodes come from `mm`, which outlives this waiter. 0.
    int init(module_man* mm);
    /// The same; every token is mirrored as a new QEvent of `type`, a QEvent::Type, posted to `target`, so that a Qt
    /// loop wakes as well. The target outlives the waiter or deinit() is called first.
    int init(module_man* mm, QObject* target, int type);
    /// Drop posts from now on and forget the Qt target.
    void deinit();
    /// Posts to a disabled waiter are dropped and succeed.
    void set_enabled(bool on);

    /// Post an event; its block, if any, is copied. 0: queued, merged or dropped; -1: no room, the sender decides.
    ///
    /// `unique`: dropped when an event of the same module and id (for extended modules also the same data) is queued.
    /// `coalesce`, ordinary modules only: merged into a queued event of the same module and id, whose data stays; each
    /// merged post is still one delivery. A block under an ordinary module id is a programming error that asks the Qt
    /// application to exit with -147.
    int send_event(const waiter_event& e, bool coalesce, bool unique);
    /// What becomes of an event when one of the same kind is queued already: the choices of send_event(), by name.
    enum Duplicates {
        keep_duplicates,  ///< queued as well
        merge_duplicates, ///< `coalesce`
        drop_duplicates   ///< `unique`
    };
    int send_event(const waiter_event& e, Duplicates d = keep_duplicates) {
        return send_event(e, d == merge_duplicates, d == drop_duplicates);
    }
    /// Post an event although the waiter may be disabled or deinitialised, and disable it in the same step, so that
    /// nothing is queued behind: 0. Without room -1, and nothing has changed. After init().
    int send_last(const waiter_event& e);
    /// Wake the consumer without an event. Uses no node, works on a disabled waiter.
    void send_anonymous_event();

    /// Take the next event, waiting without limit. EVENT_ANONYMOUS when the queue is empty: a wake-up only.
    void get_event(waiter_event* out);
    /// The same until `deadline`, rounded up to whole 10 ms: 0, or -1 when it passed with nothing pending. A deadline
    /// that lies in the past takes what is pending without waiting.
    int get_event(waiter_event* out, const Atime& deadline);
    /// Discard what is pending; waits for nothing. After set_enabled(false) and this, in this order, nothing comes that
    /// was posted before.
    void flush_events();

    /// What the consumer sleeps on from now on: a stream, say, whose descriptor is to wake it as well. Not owned; null:
    /// posts alone wake it, as at first. The consumer, or whoever knows that it does not wait now: its diner is parked.
    void set_sleeper(waiter_sleeper* s) { _tokens.set_sleeper(s); }

    int num_queued() const;    ///< [nodes] queued now
    int longest_queue() const; ///< [nodes] ever queued at a time: shows how to size an application
    void reset_longest_queue();

    /// Whether posts are taken now; else they are dropped. Takes no lock.
    bool accepting() const {
        return _initialised.load(std::memory_order_relaxed) && _enabled.load(std::memory_order_relaxed);
    }

private:
    friend class Diner;
    /// When an event was posted that was measured, [ticks], and of how many alike it is the one that was.
    struct Posted {
        uint64_t at = 0;
        uint32_t weight = 0;
    };
    /// Of the event taken last; `at` 0: it was not measured. The consumer only.
    Posted taken_posted() const { return _taken_posted; }
    /// The number of its node, 0 without one. The consumer only.
    uint32_t taken_number() const { return _taken_number; }
    /// Take the bare wake-ups that are known to be behind `taken`, which was taken last: how many. The consumer only.
    uint32_t take_more_anonymous(const waiter_event& taken);
    unsigned traced_as() const { return _traced_as.load(std::memory_order_relaxed); }

    int append(const waiter_event& e, bool& asleep) KAV_REQUIRES(_mutex);
    int append_or_merge(const waiter_event& e, bool coalesce, bool unique, bool& asleep) KAV_REQUIRES(_taking, _mutex);
    bool merge(const waiter_event& e) KAV_REQUIRES(_taking, _mutex);
    bool is_queued(const waiter_event& e) const KAV_REQUIRES(_taking, _mutex);
    int enqueue(const waiter_event& e) KAV_REQUIRES(_mutex);
    bool count_token() KAV_REQUIRES(_mutex);
    void trace(Trace::Kind kind, const waiter_event& e) const;
    void trace_posted(const waiter_event& e) const KAV_REQUIRES(_mutex);
    void give_mirrored_token() KAV_REQUIRES(_mutex);
    void hand_out(waiter_event* out);
    void fill_front() KAV_REQUIRES(_taking);

    static constexpr uint32_t one_measured_in = 64, num_measured = 16;
    static_assert(one_measured_in * num_measured >= module_man::pool_size);

    // The queue has two parts, each with a lock of its own. What producers use, what the consumer uses and what both
    // use lies on separate cache lines, so that the two sides do not fight for memory with every event. The consumer's
    // part comes last because the diner's own fields follow.
    std::atomic<bool> _enabled{false};
    std::atomic<bool> _initialised{false};
    std::atomic<uint16_t> _traced_as{0}; ///< the diner's number in traces
    std::atomic<module_man*> _modules{nullptr};
    std::atomic<QObject*> _target{nullptr}; ///< changes under `_mutex`
    int _type KAV_GUARDED_BY(_mutex) = 0;   ///< of those events: a QEvent::Type, whose header is large
    [[maybe_unused]] char _apart[64];

    mutable Mutex _mutex KAV_ACQUIRED_AFTER(_taking);
    c_sl_list<waiter_event_node> _back KAV_GUARDED_BY(_mutex); ///< what was posted since the front was filled
    /// The front holds no more: it only shrinks until it is filled again.
    int32_t _max_in_front KAV_GUARDED_BY(_mutex) = 0;
    int32_t _longest KAV_GUARDED_BY(_mutex) = 0;
    uint32_t _num_moved KAV_GUARDED_BY(_mutex) = 0; ///< nodes that went to the front so far
    /// When the first node was posted, and each 64th behind it [ticks].
    uint64_t _posted[num_measured] KAV_GUARDED_BY(_mutex) = {};

    waiter_tokens _tokens;

    mutable Mutex _taking;
    c_sl_list<waiter_event_node> _front KAV_GUARDED_BY(_taking);       ///< what is handed out next
    std::atomic<int32_t> _num_front{0};                                ///< its size, for producers
    uint32_t _num_taken KAV_GUARDED_BY(_taking) = 0;                   ///< nodes of it that were handed out
    uint32_t _num_before_front KAV_GUARDED_BY(_taking) = 0;            ///< nodes queued before it was filled
    uint64_t _front_posted[num_measured] KAV_GUARDED_BY(_taking) = {}; ///< as _posted; 0: delivered once
    Posted _taken_posted;                                              ///< the consumer's, as the next one
    uint32_t _taken_number = 0;
};
