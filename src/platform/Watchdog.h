// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"

/// Something that restarts the program, or the machine, when it is not fed in time.
class KAV_API Watchdog {
public:
    virtual ~Watchdog() = default;

    /// All is well. False, with errno, when it could not be told; waits for nothing.
    virtual bool feed() = 0;
    /// [ms] within which it wants to be fed; 0: it does not bite.
    virtual int limit_ms() const = 0;

protected:
    Watchdog() = default;
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;
};
