// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"
#include <cstdint>
#include <ctime>

namespace Util {

/// Notices that the time of day was set. What it looks at is the time of day less the time since the start of the
/// system: nothing but setting the clock changes that, for adjtime() slows down and speeds up both, and both go on
/// while the system sleeps.
///
/// An object is one reader's knowledge, guarded by its owner. As long as nobody watches the clock a look costs one
/// reading of it and notices nothing; else three (0.1 us).
class KAV_INTERNAL Clock_offset {
public:
    /// Let all objects notice steps, from this moment on: also one that looks for the first time much later. Counted;
    /// any thread.
    static void watch();
    static void stop_watching();
    static bool watched();

    /// [ms] by which the clock was set since the last look, cut to whole ones; what is cut off counts at the next look.
    /// `now` receives the time of day that this was found with.
    int64_t look(struct timespec& now);

private:
    int64_t _offset = 0; ///< [ns] known so far
    unsigned _watch = 0; ///< the begin of watching that `_offset` stems from; 0: none
};

} // namespace Util
