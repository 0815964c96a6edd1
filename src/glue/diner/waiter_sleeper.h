// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"

/// What the consumer of a waiter sleeps on in place of a semaphore, so that more than posts can wake it: a descriptor.
/// See waiter_descriptor::set_sleeper().
class KAV_API waiter_sleeper {
public:
    enum Result {
        woken,     ///< by wake()
        time_over, ///< nothing else has happened
        disturbed  ///< there may be something to look at, or nothing at all
    };
    /// Wait for wake(), at most `ms` [ms] (negative: without limit). The consumer only.
    virtual Result sleep(int ms) = 0;
    /// End one sleep(), this one or the next; any thread. Called once at most for each sleep().
    virtual void wake() = 0;
    /// Look at what else may have happened, without waiting, and post it to the waiter. The consumer only, after a
    /// disturbed sleep, and now and then while it is too busy to sleep.
    virtual void look() = 0;

protected:
    ~waiter_sleeper() = default;
};
