// SPDX-License-Identifier: MIT
#pragma once
#include "util/Hidden.h"
#include "util/Scoped_lock.h"
#include "util/api.h"
#include "util/thread_safety.h"
#include <atomic>

class QMutex;

/// The library's lock: a non-recursive QMutex that knows its owner and reports a suspected deadlock.
/// Held by a Scoped_lock; works with std::lock_guard and std::unique_lock, too.
///
/// The order in which locks are taken stands in docs/architecture.md. Builds with KAV_CHECK_LOCK_ORDER abort at the
/// first wait that contradicts another one, see Lock_order.
class KAV_CAPABILITY("mutex") KAV_API Mutex {
public:
    enum Status { status_free = 0, status_mine = 1, status_other = 2, status_any = 4 };

    Mutex();
    ~Mutex(); ///< nobody holds it or waits for it
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    /// Waits without limit in rounds of 500 ms. Each failed round prints "Deadlock assumed %p %d (owner %p, this_thread
    /// %p)\n" (mutex, failures so far from 0, owner, caller); the 21st, after about 10.5 s, aborts the process. A lock
    /// obtained after failures prints "Deadlock avoided %p %d\n". Not recursive: the owner's own second lock ends in
    /// that abort.
    void lock() KAV_ACQUIRE();
    /// One attempt that waits at most `ms` [ms] (0: not at all). True when taken.
    bool try_lock(int ms = 0) KAV_TRY_ACQUIRE(true);
    void unlock() KAV_RELEASE(); ///< by the owner

    /// True when the calling thread holds it. Lock-free.
    bool is_locked() const;
    /// Thread id (Qt::HANDLE) of the holder, null when free. Only a hint for anyone but the holder.
    void* owner() const { return _owner.load(std::memory_order_relaxed); }

    /// Free (0), held by the caller (1) or by another thread (2), as it was for a moment.
    Status status() const;
    /// Compare status() with what the caller expects (status_any accepts all). A difference prints
    /// "Bad mutex status: %d, wanted: %d %p %p" (mutex, owner) unless category 44 is on, and aborts unless category 43
    /// is on.
    void check(int wanted) const;

private:
    void lock_slowly();
    void check_order() const;
    void taken();

    mutable Hidden<QMutex> _mutex;
    std::atomic<void*> _owner{nullptr};
};
