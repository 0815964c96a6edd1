// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diner/waiter_list.h"
#include "platform/Task.h"
#include "util/Clock_offset.h"
#include "util/Mutex.h"
#include "util/api.h"
#include <atomic>
#include <cstdint>

/// Notices that the time of day was set, by whomever, and lets the timeouts of all diners move along. An application
/// constructs one, before what it should hold for, and keeps it until its diners are gone:
///
///     Clock_watch clock(Diner_info_list::get());
///
/// Nobody needs to call Diner_info_list::clock_stepped() then; a call by hand does no harm. Slewing (adjtime) and a
/// sleeping system are no steps.
///
/// What is promised while one lives. Each diner's timeouts notice a step by themselves whenever they look at the clock,
/// under the lock that guards them. So no pass handles what only the step has made due, and what is submitted in so
/// many milliseconds takes these, however near to the step that is. What is submitted with an instant should have that
/// from a clock read after the last step: an instant computed before a step and submitted after it stays where it is.
/// A diner that begins to sleep for a timeout between a step back and the wake-up of the watch's thread oversleeps by
/// the time that this takes: a scheduling of a thread of the given priority.
class KAV_API Clock_watch {
public:
    /// Event id of what those who registered are told: the clock was set.
    enum Event { event_set = 0 };

    /// Starts a thread that sleeps until the clock is set. `priority` 1..99 as that of a Task: above those of the
    /// diners is best. `mm` supplies the module id; the process ends with exit(-132) when there is none left. Where the
    /// system has no descriptor or thread left, a line says so, and only the wake-ups are missing.
    explicit Clock_watch(module_man& mm, int priority = 99);
    ~Clock_watch();
    Clock_watch(const Clock_watch&) = delete;
    Clock_watch& operator=(const Clock_watch&) = delete;

    /// Have `w` told of each step from now on, by an event_set of module_id(), one at a time in its queue. 0; -1 when
    /// 16 are told already, or this one is. Not owned: it is taken out before it goes. Any thread.
    int register_waiter(waiter_descriptor* w) { return _waiters.add(w); }
    int deregister_waiter(waiter_descriptor* w) { return _waiters.remove(w); } ///< 0; -1 when it is not there
    short module_id() const { return _waiters.module_id(); }

    /// Look now, without waiting for the thread: true when the clock was set since the last look. All diners are then
    /// woken, those who registered are told, and a line is printed. Any thread, from a handler too.
    bool check();
    unsigned steps() const { return _steps.load(std::memory_order_relaxed); } ///< noticed so far. Any thread
    int64_t last_step_ms() const {
        return _last_ms.load(std::memory_order_relaxed);
    } ///< [ms] 0: none so far. Any thread

private:
    static void* runner(void* watch);
    void run();

    Mutex _mutex; ///< taken before the locks that posting takes
    Util::Clock_offset _offset KAV_GUARDED_BY(_mutex);
    waiter_list _waiters{_mutex};
    std::atomic<unsigned> _steps{0};
    std::atomic<int64_t> _last_ms{0};
    int _timer = -1; ///< descriptor that tells of steps
    int _end = -1;   ///< descriptor that ends the thread
    Task _task;
};
