// SPDX-License-Identifier: MIT
#include "util/Clock_offset.h"
#include "util/clock.h"
#include <atomic>
#include <mutex>

namespace Util {

namespace {

constexpr int64_t ns_per_ms = 1000000, ns_per_s = 1000000000;

std::mutex starting;
std::atomic<int> watches{0};             ///< that want it now
std::atomic<unsigned> begun{0};          ///< times that watching began
std::atomic<int64_t> offset_at_begin{0}; ///< [ns]

int64_t ns(const struct timespec& t) { return t.tv_sec * ns_per_s + t.tv_nsec; }

int64_t booted() {
    struct timespec t;
    boot_clock(t);
    return ns(t);
}

/// The offset [ns] lies between two bounds, which are far apart when the thread was held up between the readings.
struct Reading {
    Reading() {
        for (int tries = 0; tries < 5; ++tries) {
            const int64_t before = booted();
            wall_clock(now);
            low = ns(now) - booted();
            high = ns(now) - before;
            if (high - low < ns_per_ms / 10) break;
        }
    }
    struct timespec now;
    int64_t low, high;
};

} // namespace

void Clock_offset::watch() {
    const std::lock_guard<std::mutex> guard(starting);
    if (!watched()) {
        const Reading r;
        offset_at_begin.store(r.low + (r.high - r.low) / 2, std::memory_order_relaxed);
        begun.fetch_add(1, std::memory_order_relaxed);
    }
    watches.fetch_add(1, std::memory_order_release);
}

void Clock_offset::stop_watching() { --watches; }
bool Clock_offset::watched() { return watches.load(std::memory_order_acquire) > 0; }

int64_t Clock_offset::look(struct timespec& now) {
    if (!watched()) {
        wall_clock(now);
        return 0;
    }
    const unsigned watch = begun.load(std::memory_order_relaxed);
    if (watch != _watch) {
        _watch = watch;
        _offset = offset_at_begin.load(std::memory_order_relaxed);
    }
    const Reading r;
    now = r.now;
    // The least step that explains what was read: a thread that was held up makes none up.
    int64_t step = 0;
    if (r.low > _offset) step = (r.low - _offset) / ns_per_ms;
    if (r.high < _offset) step = (r.high - _offset) / ns_per_ms;
    _offset += step * ns_per_ms;
    return step;
}

} // namespace Util
