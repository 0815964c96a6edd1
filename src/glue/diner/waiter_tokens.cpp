// SPDX-License-Identifier: MIT
#include "glue/diner/waiter_tokens.h"
#include "util/tsan.h"
#include <QSemaphore>

waiter_tokens::waiter_tokens() = default;
waiter_tokens::~waiter_tokens() = default;

void waiter_tokens::wake() {
    Util::tsan::release(&_wake);
    _wake->release(1);
}

/// Take one of those drawn before, or draw what has been given since.
bool waiter_tokens::draw() {
    if (_drawn > 0) {
        --_drawn;
        return true;
    }
    const int given = _given.load(std::memory_order_relaxed);
    if (given <= 0) return false;
    _drawn = _given.exchange(0, std::memory_order_acquire) - 1;
    return true;
}

void waiter_tokens::take() {
    if (draw() || _given.fetch_sub(1, std::memory_order_acquire) > 0) return;
    _wake->acquire(1);
    Util::tsan::acquire(&_wake);
}

bool waiter_tokens::take(int ms) {
    if (draw()) return true;
    if (ms <= 0) return false;
    if (_given.fetch_sub(1, std::memory_order_acquire) > 0) return true;
    if (!_wake->tryAcquire(1, ms)) {
        int asleep = -1;
        if (_given.compare_exchange_strong(asleep, 0, std::memory_order_relaxed)) return false;
        // Somebody gave just as the time ran out, and wakes a sleeper that is up already: a wake-up that must not be
        // left for the next sleep.
        _wake->acquire(1);
    }
    Util::tsan::acquire(&_wake);
    return true;
}
