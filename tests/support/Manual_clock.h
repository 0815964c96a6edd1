// SPDX-License-Identifier: MIT
#pragma once
#include "util/clock.h"
#include <atomic>
#include <cstdint>
#include <thread>

/// Stands in for the time of day while it lives. One at a time.
class Manual_clock {
public:
    explicit Manual_clock(int64_t seconds = 1000000000, int ms = 0) {
        set(seconds, ms);
        Util::set_wall_clock([](struct timespec& now) { read(_ms, now); },
                             [](struct timespec& now) { read(_boot_ms, now); });
    }
    ~Manual_clock() { Util::set_wall_clock(nullptr); }

    void set(int64_t seconds, int ms = 0) { _ms = seconds * 1000 + ms; }
    /// Somebody sets it, `ms` [ms] ahead.
    void step(int64_t ms) { _ms += ms; }
    /// Time goes by.
    void advance(int64_t ms) {
        _boot_ms += ms;
        _ms += ms;
    }

private:
    static void read(int64_t t, struct timespec& now) {
        const int64_t seconds = (t >= 0 ? t : t - 999) / 1000; // before 1970 too nanoseconds count upwards
        now = {static_cast<time_t>(seconds), static_cast<long>(t - seconds * 1000) * 1000000};
    }

    inline static std::atomic<int64_t> _boot_ms{1000};
    inline static std::atomic<int64_t> _ms{0};
};

/// Wait for a condition with a limit; the result says whether it came true. For what another thread brings about.
template <class Condition>
bool wait_until(Condition condition, std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    bool met = condition();
    for (; !met && std::chrono::steady_clock::now() < end; met = condition())
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return met;
}
