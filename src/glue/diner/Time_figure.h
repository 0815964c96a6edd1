// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"
#include <atomic>
#include <cstdint>

/// How long something takes, over many times: how often, in the mean and at worst. One thread adds; any thread reads or
/// asks for a new start, without a lock: what it sees may be of two neighbouring additions.
class KAV_API Time_figure {
public:
    struct Values {
        uint64_t count = 0; ///< of what was measured
        double mean_us = 0, worst_us = 0;
    };

    /// [ticks], see util/ticks.h. `weight`: of how many alike it is the one that was measured.
    void add(uint64_t ticks, uint32_t weight = 1) {
        constexpr auto relaxed = std::memory_order_relaxed;
        if (static_cast<int64_t>(ticks) < 0) ticks = 0; // counters of two cores may differ by a few
        if (_restart.load(relaxed)) restart();
        _count.store(_count.load(relaxed) + weight, relaxed);
        _sum.store(_sum.load(relaxed) + ticks * weight, relaxed);
        if (ticks > _worst.load(relaxed)) _worst.store(ticks, relaxed);
    }
    Values values() const;
    void reset() { _restart.store(true, std::memory_order_relaxed); } ///< nothing counts that was added before

private:
    void restart();

    std::atomic<uint64_t> _count{0}, _sum{0}, _worst{0};
    std::atomic<bool> _restart{false}; ///< asked for; whoever adds next does it
};
