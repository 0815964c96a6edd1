// SPDX-License-Identifier: MIT
#include "util/clock.h"
#include "util/ticks.h"
#include <atomic>

namespace Util {

namespace {

std::atomic<Wall_clock> wall_replacement{nullptr}, boot_replacement{nullptr};

void read(const std::atomic<Wall_clock>& replacement, clockid_t id, struct timespec& now) {
    if (const Wall_clock clock = replacement.load(std::memory_order_acquire)) {
        clock(now);
    } else {
        clock_gettime(id, &now);
    }
}

} // namespace

void wall_clock(struct timespec& now) { read(wall_replacement, CLOCK_REALTIME, now); }
void boot_clock(struct timespec& now) { read(boot_replacement, CLOCK_BOOTTIME, now); }

void set_wall_clock(Wall_clock clock, Wall_clock boot) {
    boot_replacement.store(boot, std::memory_order_release);
    wall_replacement.store(clock, std::memory_order_release);
    choose_ticks();
}

bool boot_clock_replaced() { return boot_replacement.load(std::memory_order_relaxed) != nullptr; }

} // namespace Util
