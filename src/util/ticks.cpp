// SPDX-License-Identifier: MIT
#include "util/ticks.h"
#include "util/clock.h"
#include <ctime>
#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

namespace Util {

std::atomic<bool> ticks_are_counted{false};

namespace {

int64_t ns_of(const struct timespec& t) { return int64_t{t.tv_sec} * 1000000000 + t.tv_nsec; }

int64_t monotonic_ns() {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return ns_of(t);
}

/// The counter goes on evenly, whatever the processor's frequency and however deep it sleeps.
bool has_counter() {
#if defined(__x86_64__) || defined(__i386__)
    unsigned a, b, c, d = 0;
    return __get_cpuid(0x80000007, &a, &b, &c, &d) && (d & 1u << 8);
#elif defined(__aarch64__)
    return true;
#else
    return false;
#endif
}

/// One instant in both measures.
struct Anchor {
    Anchor() {
        ns = monotonic_ns();
        at = ticks();
    }
    int64_t ns;
    uint64_t at;
};

/// When the library was loaded: the longer ago, the better is what follows from it and now.
const Anchor loaded = [] {
    choose_ticks();
    return Anchor();
}();

} // namespace

uint64_t ticks_of_clock() {
    struct timespec t;
    if (!boot_clock_replaced()) return static_cast<uint64_t>(monotonic_ns());
    boot_clock(t);
    return static_cast<uint64_t>(ns_of(t));
}

double ns_per_tick() {
    if (!ticks_are_counted.load(std::memory_order_relaxed)) return 1;
    const Anchor now;
    const auto passed = static_cast<double>(now.at - loaded.at);
    return passed > 0 ? static_cast<double>(now.ns - loaded.ns) / passed : 1;
}

int64_t ns_of_ticks(uint64_t t) {
    if (!ticks_are_counted.load(std::memory_order_relaxed)) return static_cast<int64_t>(t);
    const Anchor now;
    const auto passed = static_cast<double>(now.at - loaded.at);
    if (passed <= 0) return now.ns;
    // From the near end: what is asked for is mostly recent.
    const auto ago = static_cast<double>(static_cast<int64_t>(now.at - t));
    return now.ns - static_cast<int64_t>(ago * static_cast<double>(now.ns - loaded.ns) / passed);
}

void choose_ticks() { ticks_are_counted.store(has_counter() && !boot_clock_replaced(), std::memory_order_relaxed); }

} // namespace Util
