// SPDX-License-Identifier: MIT
#pragma once
#include "util/Hidden.h"
#include "util/api.h"

class QMutex;
class QSemaphore;

/// A counting semaphore, optionally limited to one token. Any thread.
class KAV_API Semaphore {
public:
    /// `count` tokens at start; `at_most_one`: a release never leaves more than one token.
    explicit Semaphore(int count = 0, bool at_most_one = false);
    ~Semaphore();
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;

    void release();
    /// Wait without limit for a token.
    void acquire();
    /// Wait at most `ticks` [10 ms] for a token (0: not at all, negative: without limit); true when taken. Callers
    /// divide milliseconds by 10, so waits are cut to whole 10 ms.
    bool try_acquire(int ticks = 0);
    int available() const;

private:
    Hidden<QSemaphore, 8> _semaphore;
    Hidden<QMutex> _releasing; ///< held by a release that looks whether there is a token
    const bool _at_most_one;
};
