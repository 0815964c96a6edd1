// SPDX-License-Identifier: MIT
#include "glue/diner/Diner.h"
#include "glue/diner/Diner_info_list.h"
#include "glue/diner/Diner_selector.h"
#include "glue/diner/Trace_ring.h"
#include "glue/diner/probes.h"
#include "platform/Task.h"
#include "util/Bugger.h"
#include "util/Debug_print.h"
#include "util/assertion.h"
#include <QThread>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

/// Named in the status table beside fixed numbers, which field reports can be searched for.
constexpr const char* source = "glue/diner/Diner";
constexpr int at_release = 80, at_kill = 110;
constexpr int at_start = 233, at_start_locked = 235, at_start_hook = 237, at_start_hooked = 239, at_start_token = 262,
              at_started = 265;

constexpr int terminate_lock_ticks = 200; ///< [10 ms]
constexpr int end_poll_ms = 10;
constexpr int end_polls = 501;

const waiter_event kill_event(0, -1, 0);

bool is_kill(const waiter_event& e) { return e.module_id == kill_event.module_id && e.id == kill_event.id; }

bool is_anonymous(const waiter_event& e) {
    const waiter_event& a = module_man::EVENT_ANONYMOUS;
    return e.module_id == a.module_id && e.id == a.id && e.extended == a.extended;
}

/// One thread counts, others read.
void count_one(std::atomic<uint32_t>& counter) {
    counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

} // namespace

bool Diner::Descriptor::operator==(const Descriptor& o) const { return id == o.id && strcmp(name, o.name) == 0; }

const Diner::Descriptor Diner::DESCRIPTOR_DEFAULT;

/// The end of a diner's thread from within a handler: exit() destroys what belongs to its thread before it comes to
/// static objects, diners among them.
struct Diner::Thread_end {
    ~Thread_end() {
        if (diner) diner->left_by_exit();
    }
    Diner* diner = nullptr;
};

Diner::Diner() : info(*this) {}

Diner::~Diner() {
    const int s = state.load(std::memory_order_acquire);
    if (_task && s <= state_stop) {
        Debug_print::try_print("Need to call terminate() from top level destructor\n");
        Util::flush_and_abort();
    }
    set_selector(nullptr);
    if (info.listed) Diner_info_list::get().remove(info);
    if (on_own_thread()) return; // a handler has called exit(): the thread ends with the process
    delete _task;
}

bool Diner::is_locked() const { return true; }
bool Diner::lock(int) const { return true; }
void Diner::unlock() const {}
void Diner::diner_start() {}
void Diner::diner_stop() {}
int Diner::next_timeout(Atime& expiry) { return _timeouts.next_expiry(expiry) ? 0 : -1; }

int Diner::init(module_man& mm, Diner_selector* wanted_selector, const Descriptor& name, int wanted_priority,
                int stack_kib, bool shared, bool pass_anonymous_events) {
    // The list and the selector lock before the diners that they call, so they are entered without the diner's lock;
    // and exit() ends the diners of the process, this one perhaps among them: never with the lock held.
    _entering = true;
    set_selector(nullptr);
    bool can_wait;
    {
        const Held held(*this);
        can_wait = waiter.init(&mm) >= 0;
        if (can_wait) {
            descriptor = name;
            waiter._traced_as = static_cast<uint16_t>(Trace::number_of(name.name, name.id));
            pass_anonymous = pass_anonymous_events;
            _priority = wanted_priority;
            _stack_kib = stack_kib;
            _shared = shared;
        }
    }
    if (!can_wait) exit(-103);
    if (set_selector(wanted_selector) == -1) {
        Debug_print::try_print("Problem setting selector!\r\n");
        exit(-104);
    }
    if (_task) {
        Debug_print::try_print("Init called with valid task\n");
        exit(-139);
    }
    // In the list before there is a thread, which takes it out again when it leaves.
    state.store(state_stop, std::memory_order_release);
    trace_state(state_uninit, state_stop);
    Diner_info_list::get().add(info);
    {
        const Held held(*this);
        if (state.load(std::memory_order_acquire) == state_stop) make_thread(); // unless it was terminated already
    }
    _entering = false;
    return 0;
}

/// For what holds the lock beyond one function; else there is Held.
void Diner::take_lock() const KAV_NO_THREAD_SAFETY_ANALYSIS { lock(-1); }
void Diner::give_lock() const KAV_NO_THREAD_SAFETY_ANALYSIS { unlock(); }

void Diner::make_thread() {
    char name[4 + sizeof descriptor.name];
    snprintf(name, sizeof name, "kav.%s", descriptor.name);
    _task = new (std::nothrow) Task(name, _stack_kib, _shared);
    if (_task && _task->start(_priority, runner, this) == 0) return;
    Debug_print::bprint("Task is null  %s\r\n", descriptor.name);
    delete _task;
    _task = nullptr;
}

void* Diner::runner(void* diner) {
    static_cast<Diner*>(diner)->run();
    return nullptr;
}

void Diner::run() {
    thread_local Thread_end end;
    end.diner = this;
    Trace::on_thread_of(waiter.traced_as());
    waiter_event event;
    Atime deadline(false);
    while (park()) run_until_kill(event, deadline);
    end.diner = nullptr;
}

/// A handler has called exit() and stands below us on this very stack. Its thread goes with the process, and it has no
/// more use for its lock, which others (a diner that shares it, its own destructor, a test of all locks) may need.
void Diner::left_by_exit() {
    trace_state(state.exchange(state_gone), state_gone);
    waiter.set_enabled(false); // others may go on posting to it: not from the pool, which may go before they do
    if (is_locked()) unlock();
}

/// Enter a state, unless termination is requested. A diner without a lock has only this to not lose the request.
bool Diner::enter(State next) {
    int s = state.load(std::memory_order_acquire);
    do {
        if (s >= state_term) return false;
    } while (!state.compare_exchange_weak(s, next, std::memory_order_acq_rel));
    trace_state(s, next);
    return true;
}

/// Wait to be started: true with the lock held; false, without, when the thread is to end.
bool Diner::park() KAV_NO_THREAD_SAFETY_ANALYSIS { // the analysis does not follow the two results
    take_lock();
    if (!enter(state_stop)) {
        waiter.flush_events();
        leave();
        return false;
    }
    if (!_start_pending.exchange(false)) {
        do {
            give_lock();
            _task->start_semaphore.acquire();
            take_lock();
        } while (!_starting && state.load(std::memory_order_acquire) == state_stop); // taken back meanwhile
    }
    info.checkpoint(source, at_release);
    if (!enter(state_run)) {
        leave();
        return false;
    }
    // A second start() may have given another token before it could see that the first was taken; left there, it would
    // revive the diner after its next stop.
    _starting = false;
    _task->start_semaphore.try_acquire();
    return true;
}

/// The end of the thread. The list is a lock that calls into diners, so it is entered without ours; nobody
/// takes the state away from "terminating" meanwhile. The unlock is the last access: who sees the last state under the
/// lock may destroy the diner. The list waits for those that are no longer in it, but not there yet.
void Diner::leave() {
    give_lock();
    Diner_info_list& list = Diner_info_list::get();
    list.begin_leaving(info);
    take_lock();
    trace_state(state_term, state_gone);
    state.store(state_gone, std::memory_order_release);
    give_lock();
    list.end_leaving();
}

/// Handle events and timeouts, from and to "lock held" around each, until the kill event; returns without the lock.
void Diner::run_until_kill(waiter_event& event, Atime& deadline) {
    for (;;) {
        int r = next_timeout(deadline);
        give_lock();
        if (r < 0) {
            waiter.get_event(&event);
            r = 0;
        } else {
            r = waiter.get_event(&event, deadline);
        }
        if ((r >= 0 && is_kill(event)) || _killed.load(std::memory_order_acquire)) break;
        take_lock();
        if (r < 0) {
            info.activity.store(Diner_info::activity_timeout, std::memory_order_relaxed);
            info.handler_begins(0, 0);
            handle_timeout();
        } else {
            info.activity.store(Diner_info::activity_event, std::memory_order_relaxed);
            dispatch(event);
        }
        info.handler_ends();
        info.activity.store(Diner_info::activity_idle, std::memory_order_relaxed);
        count_one(r < 0 ? info.timeout_count : info.event_count);
    }
    info.checkpoint(source, at_kill);
    _timeouts.terminate();
}

void Diner::dispatch(waiter_event& event) {
    if (debug_test(10, 50)) {
        Debug_print::cprint(debug_test(100, 150), "Evt{%s,%d,%d}\n", descriptor.name, static_cast<int>(event.module_id),
                            static_cast<int>(event.id));
    }
    if (!pass_anonymous && is_anonymous(event)) return merge_wake_ups(event);
    const waiter_descriptor::Posted posted = waiter.taken_posted();
    info.handler_begins(posted.at, posted.weight);
    const unsigned number = waiter.traced_as();
    if (Trace::on(Trace::handler_begin)) {
        Trace::put(Trace::handler_begin, number, Trace_record::of_module(event.module_id),
                   Trace_record::of_event(event.id, waiter.taken_number()));
    }
    KAV_PROBE4(handler_begin, descriptor.name, &waiter, event.module_id, event.id);
    handle_event(event);
    KAV_PROBE1(handler_end, descriptor.name);
    if (Trace::on(Trace::handler_end)) Trace::put(Trace::handler_end, number, 0, 0);
}

void Diner::merge_wake_ups(const waiter_event& event) {
    if (info.debug_level.load(std::memory_order_relaxed) != 0) return; // where each may be shown
    const uint32_t more = waiter.take_more_anonymous(event);
    if (more > 0)
        info.event_count.store(info.event_count.load(std::memory_order_relaxed) + more, std::memory_order_relaxed);
}

void Diner::handle_timeout() {
    info.handler_since.store(0, std::memory_order_relaxed); // each timeout is a handler of its own
    uint64_t since = 0; // where one handler ends the next one begins: reading the counter takes as long as a lock
    Timeout_manager::Pass pass = _timeouts.begin_pass();
    while (Timeout* t = _timeouts.expired_timeout(pass)) {
        if (pass.remaining_ms() >= 1) {
            Debug_print::try_print("Timeout_diner::handle_timeout - not expired yet %d\n", -pass.remaining_ms());
            Bugger::report_bug("Timeout_diner::handle_timeout - not expired yet");
        }
        if (debug_test(11, 51)) {
            Debug_print::cprint(debug_test(101, 151), "Tim{%s,%p}\n", descriptor.name, static_cast<void*>(t));
        }
        since = handle_late(*t, -pass.remaining_ms(), since);
    }
}

void Diner::trace_state(int from, int to) const {
    if (Trace::on(Trace::state_changed))
        Trace::put(Trace::state_changed, waiter.traced_as(), static_cast<uint32_t>(from << 16 | to), 0);
}

/// Before it is submitted, at `when` or in `ms` [ms]: afterwards it may be gone.
void Diner::trace_submitted(const Timeout& t, const Atime* when, int ms) const {
    if (!Trace::on(Trace::timeout_submitted)) return;
    const int due = when ? when->get_ms_from_now() : ms;
    Trace::put(Trace::timeout_submitted, waiter.traced_as(), static_cast<uint32_t>(due), static_cast<uint32_t>(t.uid));
}

/// One timeout, called `ms` [ms] after it was due, at `since` [ticks], 0: now. Returns when it ended.
uint64_t Diner::handle_late(Timeout& t, int ms, uint64_t since) {
    info.timeout_late(ms);
    if (since) {
        info.handler_since.store(since, std::memory_order_relaxed);
    } else {
        info.handler_begins(0, 0);
    }
    const unsigned number = waiter.traced_as();
    const int uid = t.uid;
    if (Trace::on(Trace::timeout_begin))
        Trace::put(Trace::timeout_begin, number, static_cast<uint32_t>(ms), static_cast<uint32_t>(uid));
    KAV_PROBE3(timeout_begin, descriptor.name, uid, ms);
    handle_timeout(t);
    KAV_PROBE1(handler_end, descriptor.name);
    if (Trace::on(Trace::handler_end)) Trace::put(Trace::handler_end, number, 0, 0);
    return info.handler_ends();
}

bool Diner::debug_test(unsigned a, unsigned b) const {
    const unsigned level = info.debug_level.load(std::memory_order_relaxed);
    return level != 0 && (level == a || level > b);
}

int Diner::start() {
    info.checkpoint(source, at_start);
    {
        const Held held(*this);
        info.checkpoint(source, at_start_locked);
        if (!_task) {
            Debug_print::bprint("Task not created %s\r\n", descriptor.name);
            return -1;
        }
        if (state.load(std::memory_order_acquire) != state_stop) return -1;
    }
    info.checkpoint(source, at_start_hook);
    waiter.set_enabled(true);
    diner_start();
    info.checkpoint(source, at_start_hooked);
    const Held held(*this);
    info.checkpoint(source, at_start_token);
    const int result = release_parked();
    info.checkpoint(source, at_started);
    return result;
}

/// The end of start(). Others may have started, stopped or terminated the diner while the hook ran.
int Diner::release_parked() {
    switch (state.load(std::memory_order_acquire)) {
    case state_stop:
        waiter.set_enabled(true); // a stop() in between has disabled it
        _starting = true;
        _task->start_semaphore.release();
        return 0;
    case state_run:
        return 0;
    default:
        waiter.set_enabled(false);
        return -1;
    }
}

/// Take back a start() that the thread has not followed yet; false when there is none.
bool Diner::withdraw_start() {
    const Held held(*this);
    if (state.load(std::memory_order_acquire) != state_stop || !_starting.exchange(false)) return false;
    waiter.set_enabled(false);
    diner_stop();
    return true;
}

int Diner::stop() {
    const Held held(*this);
    _start_pending = false;
    if (state.load(std::memory_order_acquire) != state_run) return -1;
    diner_stop();
    const int result = waiter.send_last(kill_event);
    if (result != 0) {
        diner_start();
    } else {
        int expected = state_run; // without a lock the thread may have parked already
        if (state.compare_exchange_strong(expected, state_stopping)) trace_state(state_run, state_stopping);
    }
    return result;
}

bool Diner::wait_stopped() const {
    for (int polls = 1;; ++polls) {
        const int s = state.load(std::memory_order_acquire);
        if (s == state_stop) return true;
        if (s != state_stopping || polls == end_polls) return false;
        Atime::delay(end_poll_ms);
    }
}

int Diner::send_kill() { return waiter.send_event(kill_event, waiter_descriptor::merge_duplicates); }

void Diner::terminate(bool wait) {
    if (!lock(terminate_lock_ticks)) {
        Debug_print::try_print("No terminate, are we locked\n");
        Util::flush_and_abort();
    }
    Held held(*this, Held::adopt);
    _start_pending = false;
    _timeouts.terminate();
    int s = state.load(std::memory_order_acquire); // up to state_stop: run, stopping or stop
    while (s <= state_stop && !state.compare_exchange_weak(s, _task ? state_term : state_gone)) {
    }
    if (s > state_stop) {
        const bool by_other = s == state_term && _ender != QThread::currentThreadId();
        if (s != state_gone && !by_other) {
            fprintf(stderr, "terminate %lx called from state %d\n", reinterpret_cast<unsigned long>(this), s);
        }
        held.unlock();
        if (wait && by_other) wait_terminate();
        if (wait && s == state_gone) join();
        return;
    }
    trace_state(s, _task ? state_term : state_gone);
    _ender = QThread::currentThreadId();
    if (s == state_run) {
        if (waiter.send_last(kill_event) != 0) {
            waiter.set_enabled(false);
            _killed.store(true, std::memory_order_release);
            waiter.send_anonymous_event();
        }
        diner_stop();
    } else {
        if (_task) _task->start_semaphore.release();
        waiter.set_enabled(false);
    }
    held.unlock();
    if (wait) wait_terminate();
}

void Diner::wait_terminate() {
    for (int polls = 1; get_state() != state_gone; ++polls) {
        if (polls == end_polls) {
            Debug_print::try_print("No terminate, did we call delete ourself\n");
            Util::flush_and_abort();
        }
        // The end of the thread comes right behind its last state.
        if (on_own_thread() || !_task) {
            Atime::delay(end_poll_ms);
        } else {
            _task->join(end_poll_ms);
        }
    }
    join();
}

/// The thread has reached its last state; wait until it does not use the diner any more. Without a lock there is
/// nothing else to tell.
void Diner::join() {
    if (_task && !on_own_thread()) _task->join();
}

int Diner::get_state() const {
    if (is_locked()) return state.load(std::memory_order_acquire);
    const Held held(*this);
    return state.load(std::memory_order_acquire);
}

const char* Diner::state_name(int state) {
    static const char* const names[] = {"Run", "Stoping", "Stop", "Uninit", "Term"};
    return state >= state_run && state <= state_term ? names[state] : "Unknown";
}

bool Diner::on_own_thread() const { return _task && _task->is_current(); }

int Diner::submit_timeout(Timeout& t, const Atime& when) {
    trace_submitted(t, &when, 0);
    const int result = _timeouts.submit_timeout(t, &when, this);
    waiter.send_anonymous_event();
    return result;
}

int Diner::submit_timeout(Timeout& t, int ms) {
    trace_submitted(t, nullptr, ms);
    const int result = _timeouts.submit_timeout_in(t, ms, this);
    waiter.send_anonymous_event();
    return result;
}

int Diner::submit_timeout(Timeout& t) {
    trace_submitted(t, nullptr, INT_MIN); // at its own expiry, which may be the manager's to change
    const int result = _timeouts.submit_timeout(t, nullptr, this);
    waiter.send_anonymous_event();
    return result;
}

int Diner::remove_timeout(Timeout& t) { return _timeouts.remove_timeout(t, true); }

bool Diner::submitted(const Timeout& t) const {
    if (is_locked()) return _timeouts.submitted(t);
    const Held held(*this);
    return _timeouts.submitted(t);
}

void Diner::remove_from_lists(Timeout& t) {
    if (is_locked()) {
        _timeouts.remove_timeout(t);
        return;
    }
    const Held held(*this);
    _timeouts.remove_timeout(t);
}

int Diner::set_selector(Diner_selector* s) { return Diner_selector::move(*this, s); }
