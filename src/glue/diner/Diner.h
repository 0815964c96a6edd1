// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diner/Diner_info.h"
#include "glue/diner/Timeout_manager.h"
#include "glue/diner/module_man.h"
#include "glue/diner/waiter_descriptor.h"
#include "util/Mutex.h"
#include "util/api.h"
#include "util/avl_bstree.h"
#include "util/thread_safety.h"
#include <atomic>
#include <climits>

class Diner_selector;
class Task;
template <class D>
class Diner_protection;

/// An active object: a thread of its own that sleeps until an event arrives or the earliest timeout falls due, and then
/// calls the subclass's handler for it, one at a time, under the diner's lock.
///
/// A subclass derives from Diner::Protection (or Diner_external_protection<Diner>), which supply the lock, implements
/// the two handlers, and calls terminate(true) in its own destructor: the thread must be gone before the subclass is.
///
/// Other threads may call start, stop, terminate, the timeout calls and post to `waiter`. A handler must not start,
/// stop or terminate its own diner (or one that shares its lock): it already holds the lock. It may call exit(): its
/// thread counts as gone from then on.
class KAV_CAPABILITY("diner") KAV_API Diner : public avl_bsnode {
public:
    using Protection = Diner_protection<Diner>;

    /// Name and id of a diner, equal when both are.
    struct KAV_API Descriptor {
        static constexpr int max_name = 12; ///< [characters]
        static constexpr const char* NAME_DEFAULT = "ANON_DNR";

        constexpr Descriptor() : Descriptor(NAME_DEFAULT, 0) {}
        /// The name is copied, cut to 12 characters.
        constexpr Descriptor(const char* text, int number) : name(), id(number) {
            for (int i = 0; i < max_name && text[i]; ++i) name[i] = text[i];
        }
        bool operator==(const Descriptor& o) const;
        bool operator!=(const Descriptor& o) const { return !(*this == o); }

        char name[max_name + 1];
        int id;
    };
    static const Descriptor DESCRIPTOR_DEFAULT;

    /// Numbers are part of the status table.
    enum State {
        state_run = 0,      ///< in the run loop
        state_stopping = 1, ///< stop() sent the kill event, the thread has not taken it yet
        state_stop = 2,     ///< parked; also right after init()
        state_uninit = 3,   ///< init() not called yet
        state_term = 4,     ///< termination requested
        state_gone = 5      ///< the thread has left
    };

    Diner();
    Diner(const Diner&) = delete;
    Diner& operator=(const Diner&) = delete;

    // The order of the virtual functions, here and in Data_stream, is part of the interface: programs that were built
    // against an earlier version call them by their place. New ones go behind the last.

    /// True when the caller holds the diner's lock. Without a lock: true.
    virtual bool is_locked() const;
    /// Hook run by start() without the lock, and by a failed stop() with it: it must not lock. What it posts to the own
    /// waiter is handled once the diner runs.
    virtual void diner_start();
    /// Hook run by stop() and terminate(), and by a selector that takes a start back, with the lock held.
    virtual void diner_stop() KAV_REQUIRES(this);
    /// The handler of one event; on the diner's thread, lock held. The event is the loop's own and may be changed.
    virtual void handle_event(waiter_event& event) KAV_REQUIRES(this) = 0;
    /// Handles what is due when the pass begins, missed periods included; on the diner's thread, lock held.
    virtual void handle_timeout() KAV_REQUIRES(this);
    /// The handler of one timeout; on the diner's thread, lock held.
    virtual void handle_timeout(Timeout& timeout) KAV_REQUIRES(this) = 0;
    /// Expiry of the earliest pending timeout: 0, or -1 when there is none.
    virtual int next_timeout(Atime& expiry);
    /// Take the diner's lock. `timeout` [10 ms], negative: without limit. True when taken. Without a lock: true.
    virtual bool lock(int timeout) const;
    virtual void unlock() const;
    /// Enter the diner in the selector (may be null) and the status list and give it its thread, parked. `mm` and
    /// `selector` outlive the diner. `priority` 1..99; `stack_kib` [KiB] and `shared` go to the thread object; without
    /// `pass_anonymous` bare wake-ups are counted but not handled. 0. Ends the process with exit(-103), exit(-104) (the
    /// selector has an equal descriptor; the diner is in no list and has no thread then) or exit(-139) (called twice).
    /// The selector cannot select it before it can start.
    virtual int init(module_man& mm, Diner_selector* selector, const Descriptor& descriptor, int priority,
                     int stack_kib, bool shared, bool pass_anonymous);
    /// Aborts when the diner was initialised and terminate() was not called.
    virtual ~Diner();

    /// What init() takes beside pool and name.
    struct Options {
        Diner_selector* selector = nullptr;
        int priority = 0;            ///< 1..99 for real-time scheduling; 0: an ordinary thread
        int stack_kib = 256;         ///< [KiB]
        bool shared = false;         ///< for boards whose task layer needs it
        bool pass_anonymous = false; ///< hand bare wake-ups to handle_event(), too
    };
    /// The same as the init() above: most diners need none of the options.
    int init(module_man& mm, const Descriptor& name) { return init(mm, name, Options()); }
    int init(module_man& mm, const Descriptor& name, const Options& o) {
        return init(mm, o.selector, name, o.priority, o.stack_kib, o.shared, o.pass_anonymous);
    }

    /// Let a parked diner run: 0. -1 when it is not parked.
    int start();
    /// Ask a running diner to park; pending timeouts are dropped. 0; -1 when it is not running or the event pool is
    /// exhausted (it runs on then). It parks after the events queued before. The waiter, which may be disabled or
    /// deinitialised, is disabled in the same step: nothing is queued behind.
    int stop();
    /// Wait, after stop(), until the diner is parked and start() can succeed: true. Polls every 10 ms; false after
    /// about 5 s, and at once when nobody has stopped it: it runs, has ended or has no thread. Takes no lock. Not on
    /// the diner's own thread.
    bool wait_stopped() const;
    /// End the diner's thread for good; with `wait` until it has left. Aborts when the lock cannot be had within 2 s.
    /// Several threads may end the same diner, and each waits that wants to; the object goes when all have returned.
    /// A diner that was never initialised, or that this thread itself has asked before, prints its state and returns at
    /// once: after terminate(false) call wait_terminate().
    void terminate(bool wait);
    /// Wait until the thread has left; aborts after about 5 s. Not on the diner's own thread.
    void wait_terminate();
    bool terminated() const { return state.load(std::memory_order_acquire) == state_gone; } ///< takes no lock
    int get_state() const; ///< takes the lock unless the caller holds it
    /// Post the kill event (module 0, id -1): 0, or -1 when the pool has no room.
    int send_kill();

    /// Submit a timeout to this diner and wake it: due at `when`, in `ms` [ms], or at the timeout's own expiry. 0, or
    /// -1 when it is another diner's. Any thread, no lock taken but a leaf.
    int submit_timeout(Timeout& t, const Atime& when);
    int submit_timeout(Timeout& t, int ms);
    int submit_timeout(Timeout& t);
    /// Withdraw: 0, or -1 when it is another diner's. A handler that is already running for it runs on: before its
    /// memory goes, let its destructor withdraw it, or call this under the lock.
    int remove_timeout(Timeout& t);
    /// Whether it is pending here. Takes the lock unless the caller holds it.
    bool submitted(const Timeout& t) const;
    /// remove_timeout() without the wake-up, under the lock; for the timeout's destructor.
    void remove_from_lists(Timeout& t);

    /// Move to another selector (null: none): 0. The selector's error when it refuses: nothing has changed then. A
    /// diner that is selected where it leaves is stopped, as it is when another one is selected. Not by two threads at
    /// once, nor in a handler.
    int set_selector(Diner_selector* s);
    Diner_selector* get_selector() const { return _selector; }
    /// For the next thread made.
    void set_priority(int p) { _priority = p; }
    const Descriptor& get_descriptor() const { return descriptor; }
    /// The caller runs on this diner's thread.
    bool on_own_thread() const;
    /// The name of a state number in the status table.
    static const char* state_name(int state);
    bool start_pending() const { return _start_pending; }

    /// Thread entry: runs the diner given as argument.
    static void* runner(void* diner);

    Diner_info info;

protected:
    friend class Diner_info;
    friend class Diner_info_list;
    friend class Diner_selector;

    /// Holds a diner's lock until its own end.
    class KAV_SCOPED_CAPABILITY Held {
    public:
        enum Adopt { adopt };
        explicit Held(const Diner& d) KAV_ACQUIRE(d) : _diner(d) { d.lock(-1); }
        Held(const Diner& d, Adopt) KAV_ACQUIRE(d) : _diner(d) {} ///< it is locked already
        ~Held() KAV_RELEASE() {
            if (_held) _diner.unlock();
        }
        Held(const Held&) = delete;
        Held& operator=(const Held&) = delete;
        void unlock() KAV_RELEASE() KAV_NO_THREAD_SAFETY_ANALYSIS { ///< before its end
            _held = false;
            _diner.unlock();
        }

    private:
        const Diner& _diner;
        bool _held = true;
    };

    /// In handle_event(), where `event` is a bare wake-up: let this call stand for those that have come since, too.
    /// They are counted as events. Without `pass_anonymous` that is done anyway.
    void merge_wake_ups(const waiter_event& event);

    Descriptor descriptor;
    Task* _task = nullptr;
    std::atomic<Diner_selector*> _selector{nullptr};
    int _priority = 0;
    int _stack_kib = 0;
    bool _shared = false;
    std::atomic<bool> _start_pending{false}; ///< shown in the status table; nothing sets it
    bool pass_anonymous = false;
    std::atomic<int> state{state_uninit};
    Timeout_manager _timeouts;

public:
    waiter_descriptor waiter;

private:
    void take_lock() const KAV_ACQUIRE();
    void give_lock() const KAV_RELEASE();
    void make_thread() KAV_REQUIRES(this);
    void run();
    bool park() KAV_TRY_ACQUIRE(true);
    bool enter(State next);
    void run_until_kill(waiter_event& event, Atime& deadline) KAV_RELEASE();
    void leave() KAV_RELEASE();
    void dispatch(waiter_event& event) KAV_REQUIRES(this);
    uint64_t handle_late(Timeout& t, int ms, uint64_t since) KAV_REQUIRES(this);
    void trace_state(int from, int to) const;
    void trace_submitted(const Timeout& t, const Atime* when, int ms) const;
    int release_parked() KAV_REQUIRES(this);
    bool withdraw_start();
    void join();
    void left_by_exit();
    bool debug_test(unsigned a, unsigned b) const;

    struct Thread_end;
    std::atomic<bool> _killed{false};   ///< termination that does not depend on room in the event pool
    std::atomic<bool> _starting{false}; ///< start() has given its token, the thread does not run yet
    std::atomic<bool> _entering{false}; ///< in init(), and cannot start yet
    std::atomic<void*> _ender{nullptr}; ///< the thread that asked for the termination
};

/// D (Diner or a subclass) with a lock: what `lock`, `unlock` and `is_locked` of the two classes below share.
template <class D>
class Diner_lock_base : public D {
public:
    bool is_locked() const override { return _lock->is_locked(); }
    bool lock(int timeout) const override KAV_NO_THREAD_SAFETY_ANALYSIS {
        if (timeout >= 0) return _lock->try_lock(timeout < INT_MAX / 10 ? timeout * 10 : INT_MAX);
        _lock->lock();
        return true;
    }
    void unlock() const override KAV_NO_THREAD_SAFETY_ANALYSIS { _lock->unlock(); }

protected:
    explicit Diner_lock_base(Mutex* m) : _lock(m) {}

private:
    Mutex* _lock;
};

/// A diner with a lock of its own.
template <class D>
class Diner_protection : public Diner_lock_base<D> {
public:
    Diner_protection() : Diner_lock_base<D>(&_own) {}

private:
    mutable Mutex _own;
};

/// A diner that shares the lock of another object, which outlives it. Neither may start, stop or terminate the other
/// from a handler.
template <class D>
class Diner_external_protection : public Diner_lock_base<D> {
public:
    explicit Diner_external_protection(Mutex& shared) : Diner_lock_base<D>(&shared) {}
};
