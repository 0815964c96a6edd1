// SPDX-License-Identifier: MIT
#include "glue/diner/waiter_tokens.h"
#include "glue/diner/waiter_sleeper.h"
#include "util/ticks.h"
#include "util/tsan.h"
#include <QSemaphore>
#include <algorithm>
#include <sched.h>

namespace {

constexpr uint32_t takes_to_look = 8; // what a consumer that is never idle lets lie until it looks
constexpr int enough_short_sleeps = 4;
constexpr double short_sleep_ns = 20e3, long_turn_ns = 100e3;
constexpr uint64_t long_turns_to_time = 500; // long turns of others may take that part of the time at first
constexpr double longest_pause_ns = 60e9;

double ns_since(uint64_t ticks) { return static_cast<double>(Util::ticks() - ticks) * Util::ns_per_tick(); }

} // namespace

waiter_tokens::waiter_tokens() = default;
waiter_tokens::~waiter_tokens() = default;

void waiter_tokens::wake() {
    Util::tsan::release(&_wake);
    if (waiter_sleeper* const s = _sleeper) {
        s->wake();
    } else {
        _wake->release(1);
    }
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

/// Before a sleep. Where givers and consumer share a core, each token would put the consumer into its giver's place, at
/// the cost of two switches between threads. A consumer that keeps being woken right after it fell asleep leaves the
/// core to others without going to sleep: tokens gather meanwhile, and none costs a wake-up. It is false when none
/// came.
bool waiter_tokens::draw_after_others() {
    if (_short_sleeps < enough_short_sleeps) return false;
    const uint64_t since = Util::ticks();
    if (static_cast<int64_t>(since - _sleeps_until) < 0) return false;
    sched_yield();
    const uint64_t turn = Util::ticks() - since;
    if (static_cast<double>(turn) * Util::ns_per_tick() > long_turn_ns) sleep_for_a_while(since, turn);
    return draw();
}

/// Something that is busy on the core may keep it for milliseconds, and whatever is posted meanwhile waits as long,
/// while who sleeps and is woken has the core at once. So after such a turn of others, which began at `since` and took
/// `turn` [ticks], it goes to sleep for a time, and for longer each time that this was not enough.
void waiter_tokens::sleep_for_a_while(uint64_t since, uint64_t turn) {
    const uint64_t more = since - _sleeps_until < _pause ? 2 * _pause : 0;
    _pause = std::min(std::max(turn * long_turns_to_time, more),
                      static_cast<uint64_t>(longest_pause_ns / Util::ns_per_tick()));
    _sleeps_until = since + _pause;
}

void waiter_tokens::slept_since(uint64_t ticks) {
    if (ns_since(ticks) > short_sleep_ns) {
        _short_sleeps = 0;
    } else if (_short_sleeps < enough_short_sleeps) {
        ++_short_sleeps;
    }
}

/// Take a token within `ms` [ms] (negative: without limit) where something else may wake the consumer, too.
bool waiter_tokens::take_with(waiter_sleeper& sleeper, int ms) {
    const uint64_t since = ms > 0 ? Util::ticks() : 0;
    for (int left = ms;;) {
        if (++_takes % takes_to_look == 0) sleeper.look();
        if (draw()) return true;
        if (left == 0) return false;
        if (_given.fetch_sub(1, std::memory_order_acquire) > 0) return true;
        waiter_sleeper::Result r = sleeper.sleep(left);
        int asleep = -1;
        if (r == waiter_sleeper::woken || !_given.compare_exchange_strong(asleep, 0, std::memory_order_relaxed)) {
            while (r != waiter_sleeper::woken) r = sleeper.sleep(-1); // somebody gave just then, and wakes a sleeper
            Util::tsan::acquire(&_wake);
            return true;
        }
        if (r == waiter_sleeper::time_over) return false;
        sleeper.look();
        if (ms > 0) left = std::max(0, ms - static_cast<int>(ns_since(since) / 1e6));
    }
}

void waiter_tokens::take() {
    if (waiter_sleeper* const s = _sleeper) {
        take_with(*s, -1);
        return;
    }
    if (draw() || draw_after_others() || _given.fetch_sub(1, std::memory_order_acquire) > 0) return;
    const uint64_t since = Util::ticks();
    _wake->acquire(1);
    Util::tsan::acquire(&_wake);
    slept_since(since);
}

bool waiter_tokens::take(int ms) {
    if (waiter_sleeper* const s = _sleeper) return take_with(*s, std::max(ms, 0));
    if (draw()) return true;
    if (ms <= 0) return false;
    if (draw_after_others() || _given.fetch_sub(1, std::memory_order_acquire) > 0) return true;
    const uint64_t since = Util::ticks();
    if (!_wake->tryAcquire(1, ms)) {
        int asleep = -1;
        if (_given.compare_exchange_strong(asleep, 0, std::memory_order_relaxed)) return false;
        // Somebody gave just as the time ran out, and wakes a sleeper that is up already: a wake-up that must not be
        // left for the next sleep.
        _wake->acquire(1);
    }
    Util::tsan::acquire(&_wake);
    slept_since(since);
    return true;
}
