// SPDX-License-Identifier: MIT
#include "Machine_clock.h"
#include "util/clock.h"
#include <atomic>

namespace {

std::atomic<int64_t> ahead_ms{0}; ///< of the time since the host's start

int64_t since_start_ms() {
    struct timespec t;
    Util::boot_clock(t);
    return t.tv_sec * int64_t{1000} + t.tv_nsec / 1000000;
}

void read(struct timespec& now) {
    Util::boot_clock(now);
    const int64_t ahead = ahead_ms;
    now.tv_sec += static_cast<time_t>(ahead / 1000);
    now.tv_nsec += static_cast<long>(ahead % 1000 * 1000000);
    if (now.tv_nsec >= 1000000000) now.tv_nsec -= 1000000000, ++now.tv_sec;
    if (now.tv_nsec < 0) now.tv_nsec += 1000000000, --now.tv_sec;
}

} // namespace

void Machine_clock::begin() {
    set(1000);
    Util::set_wall_clock(read);
}

void Machine_clock::set(int64_t ms) { ahead_ms = ms - since_start_ms(); }
