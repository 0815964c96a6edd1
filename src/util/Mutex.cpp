// SPDX-License-Identifier: MIT
#include "util/Mutex.h"
#include "util/Debug_base.h"
#include "util/Debug_print.h"
#include "util/Lock_order.h"
#include "util/assertion.h"
#include "util/tsan.h"
#include <QMutex>
#include <QThread>

static constexpr int round_ms = 500;
/// The failed round with this number is the last: the thread would wait for ever.
static constexpr int last_round = 20;
/// Most holders leave within a few dozen instructions: looking again that long is cheaper than going to sleep.
static constexpr int spins = 40;

static inline void pause_briefly() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__) || (defined(__ARM_ARCH) && __ARM_ARCH >= 7)
    asm volatile("yield");
#endif
}

#ifdef KAV_CHECK_LOCK_ORDER
static constexpr bool checks_order = true;
#else
static constexpr bool checks_order = false;
#endif

// The sanitizer knows the lock by the address of its owner field.
Mutex::Mutex() { Util::tsan::mutex_create(&_owner); }
Mutex::~Mutex() {
    Util::tsan::mutex_destroy(&_owner);
    if (checks_order) Util::Lock_order::get().destroyed(this);
}

void Mutex::lock() {
    if (checks_order) check_order();
    Util::tsan::mutex_pre_lock(&_owner);
    if (!_mutex->tryLock()) lock_slowly();
    taken();
    Util::tsan::mutex_post_lock(&_owner);
}

void Mutex::check_order() const {
    if (!Util::Lock_order::get().wait(this)) Util::flush_and_abort();
}

void Mutex::lock_slowly() {
    for (int i = 0; i < spins; ++i) {
        pause_briefly();
        if (i % 4 == 3 && _mutex->tryLock()) return;
    }
    int failures = 0;
    for (; !_mutex->tryLock(round_ms); ++failures) {
        Debug_print::try_print("Deadlock assumed %p %d (owner %p, this_thread %p)\n", static_cast<void*>(this),
                               failures, owner(), static_cast<void*>(QThread::currentThreadId()));
        if (failures == last_round) Util::flush_and_abort();
    }
    if (failures > 0) Debug_print::try_print("Deadlock avoided %p %d\n", static_cast<void*>(this), failures);
}

void Mutex::taken() {
    _owner.store(QThread::currentThreadId(), std::memory_order_relaxed);
    if (checks_order) Util::Lock_order::get().taken(this);
}

bool Mutex::try_lock(int ms) {
    if (checks_order && ms > 0) check_order(); // who waits is in the way of others, if only for a time
    Util::tsan::mutex_pre_try_lock(&_owner);
    const bool got = ms > 0 ? _mutex->tryLock(ms) : _mutex->tryLock();
    if (got) taken();
    Util::tsan::mutex_post_try_lock(&_owner, got);
    return got;
}

void Mutex::unlock() {
    if (checks_order) Util::Lock_order::get().released(this);
    Util::tsan::mutex_pre_unlock(&_owner);
    _owner.store(nullptr, std::memory_order_relaxed);
    _mutex->unlock();
    Util::tsan::mutex_post_unlock(&_owner);
}

bool Mutex::is_locked() const { return owner() == QThread::currentThreadId(); }

Mutex::Status Mutex::status() const {
    if (is_locked()) return status_mine;
    if (!_mutex->tryLock()) return status_other;
    _mutex->unlock();
    return status_free;
}

void Mutex::check(int wanted) const {
    if (wanted == status_any) return;
    const Status found = status();
    if (found == wanted) return;
    if (!Debug_filter::enabled(_JDB::jdb_mutex_quiet)) {
        Debug_print::try_print("Bad mutex status: %d, wanted: %d %p %p", static_cast<int>(found), wanted,
                               static_cast<const void*>(this), owner());
    }
    if (!Debug_filter::enabled(_JDB::jdb_mutex_lenient)) Util::flush_and_abort();
}
