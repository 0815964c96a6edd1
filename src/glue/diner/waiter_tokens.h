// SPDX-License-Identifier: MIT
#pragma once
#include "util/Hidden.h"
#include "util/api.h"
#include <atomic>
#include <cstdint>
#include <utility>

class QSemaphore;
class waiter_sleeper;

/// The tokens of a waiter: a counting semaphore that many threads give to and one takes from.
///
/// A QSemaphore alone costs the giver a system call for every token from the moment the consumer falls asleep until it
/// has really run again. Here the count is an atomic and the QSemaphore is given to once for each sleep. The consumer
/// draws all that is there at once, so that the two sides seldom touch the same memory.
class KAV_INTERNAL waiter_tokens {
public:
    waiter_tokens();
    ~waiter_tokens();

    void give() { ///< any thread
        if (count()) wake();
    }
    /// The two steps of give(), for who holds a lock that the consumer wants. True: the consumer sleeps, and wake()
    /// must follow; the token counts already.
    bool count() { return _given.fetch_add(1, std::memory_order_release) < 0; }
    void wake();
    void take();       ///< waits without limit; the consumer only
    bool take(int ms); ///< waits at most `ms` [ms] (0 and less: not at all); true when taken; the consumer only
    /// Take those that were drawn and not taken yet: how many. The consumer only.
    int take_drawn() { return std::exchange(_drawn, 0); }
    /// Not owned; null: the semaphore. The consumer, or whoever knows that it does not wait now.
    void set_sleeper(waiter_sleeper* s) { _sleeper = s; }

private:
    bool draw();
    bool draw_after_others();
    void sleep_for_a_while(uint64_t since, uint64_t turn);
    void slept_since(uint64_t ticks);
    bool take_with(waiter_sleeper& sleeper, int ms);

    std::atomic<int> _given{0}; ///< not drawn yet; -1 while the consumer sleeps
    Hidden<QSemaphore, 8> _wake;
    std::atomic<waiter_sleeper*> _sleeper{nullptr};
    [[maybe_unused]] char _apart[64]; ///< keeps the two sides on cache lines of their own
    // The consumer's:
    int _drawn = 0;
    int _short_sleeps = 0; ///< in a row
    uint32_t _takes = 0;   ///< from the sleeper
    /// [ticks] until when the core is not left to others, and for how long that was.
    uint64_t _sleeps_until = 0, _pause = 0;
};
