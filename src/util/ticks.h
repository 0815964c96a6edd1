// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"
#include <atomic>
#include <cstdint>

namespace Util {

/// [ticks] of a counter that goes on evenly from the start of the system and is read in a few nanoseconds where the
/// processor has one (x86-64, i386, AArch64); else nanoseconds of CLOCK_MONOTONIC. While another clock for the time
/// since the start stands in (see clock.h), nanoseconds of that one. Any thread, signal handlers too.
inline uint64_t ticks();

/// The instant at which ticks() was `t`, in [ns] of CLOCK_MONOTONIC. Right to a few parts in a million, for what lies
/// before the library was loaded as well as for now. Signal handlers may call it.
KAV_API int64_t ns_of_ticks(uint64_t t);
/// [ns] for each tick.
KAV_API double ns_per_tick();

/// Whether ticks() may read the counter: the processor has one, and no other clock stands in.
KAV_API extern std::atomic<bool> ticks_are_counted;
KAV_API uint64_t ticks_of_clock();
void choose_ticks(); ///< for who puts a clock in place or takes it away

inline uint64_t ticks() {
#if defined(__x86_64__) || defined(__i386__)
    if (ticks_are_counted.load(std::memory_order_relaxed)) return __builtin_ia32_rdtsc();
#elif defined(__aarch64__)
    if (ticks_are_counted.load(std::memory_order_relaxed)) {
        uint64_t t;
        asm volatile("mrs %0, cntvct_el0" : "=r"(t));
        return t;
    }
#endif
    return ticks_of_clock();
}

} // namespace Util
