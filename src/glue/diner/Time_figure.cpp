// SPDX-License-Identifier: MIT
#include "glue/diner/Time_figure.h"
#include "util/ticks.h"

void Time_figure::restart() {
    _count.store(0, std::memory_order_relaxed);
    _sum.store(0, std::memory_order_relaxed);
    _worst.store(0, std::memory_order_relaxed);
    _restart.store(false, std::memory_order_relaxed);
}

Time_figure::Values Time_figure::values() const {
    Values v;
    if (_restart.load(std::memory_order_relaxed)) return v;
    v.count = _count.load(std::memory_order_relaxed);
    if (v.count == 0) return v;
    const double us = Util::ns_per_tick() / 1000;
    v.mean_us = static_cast<double>(_sum.load(std::memory_order_relaxed)) / static_cast<double>(v.count) * us;
    v.worst_us = static_cast<double>(_worst.load(std::memory_order_relaxed)) * us;
    return v;
}
