// SPDX-License-Identifier: MIT
#pragma once
#include "util/clock.h"
#include <atomic>
#include <cstdint>

/// Stands in for the time of day while it lives. One at a time.
class Manual_clock {
public:
    explicit Manual_clock(int64_t seconds = 1000000000, int ms = 0) {
        set(seconds, ms);
        Util::set_wall_clock([](struct timespec& now) {
            const int64_t t = _ms.load();
            const int64_t seconds = (t >= 0 ? t : t - 999) / 1000; // before 1970 too nanoseconds count upwards
            now.tv_sec = static_cast<time_t>(seconds);
            now.tv_nsec = static_cast<long>(t - seconds * 1000) * 1000000;
        });
    }
    ~Manual_clock() { Util::set_wall_clock(nullptr); }

    void set(int64_t seconds, int ms = 0) { _ms = seconds * 1000 + ms; }
    void advance(int64_t ms) { _ms += ms; }

private:
    inline static std::atomic<int64_t> _ms{0};
};
