// SPDX-License-Identifier: MIT
#pragma once
#include "util/thread_safety.h"

/// Holds a lock, a Mutex or whatever else has lock() and unlock(), until its own end: `const Scoped_lock held(_mutex);`
template <class L>
class KAV_SCOPED_CAPABILITY Scoped_lock {
public:
    explicit Scoped_lock(L& lock) KAV_ACQUIRE(lock) : _lock(&lock), _held(true) { lock.lock(); }
    /// Where there may be none: null holds nothing.
    explicit Scoped_lock(L* lock) KAV_ACQUIRE(lock) : _lock(lock), _held(lock != nullptr) {
        if (lock) lock->lock();
    }
    ~Scoped_lock() KAV_RELEASE() {
        if (_held) _lock->unlock();
    }
    Scoped_lock(const Scoped_lock&) = delete;
    Scoped_lock& operator=(const Scoped_lock&) = delete;

    /// Give the lock back for a while, and take it again.
    void unlock() KAV_RELEASE() KAV_NO_THREAD_SAFETY_ANALYSIS {
        _held = false;
        _lock->unlock();
    }
    void lock() KAV_ACQUIRE() KAV_NO_THREAD_SAFETY_ANALYSIS {
        _lock->lock();
        _held = true;
    }

private:
    L* _lock;
    bool _held;
};
