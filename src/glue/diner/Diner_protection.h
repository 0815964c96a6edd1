// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diner/Diner.h"
#include "util/Mutex.h"

/// D (Diner or a subclass) with a lock: what `lock`, `unlock` and `is_locked` of the two classes below share.
template <class D>
class Diner_lock_base : public D {
public:
    bool is_locked() const override { return _lock->is_locked(); }
    bool lock(int timeout) const override {
        if (timeout >= 0) return _lock->try_lock(timeout * 10);
        _lock->lock();
        return true;
    }
    void unlock() const override { _lock->unlock(); }

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
