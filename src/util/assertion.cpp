// SPDX-License-Identifier: MIT
#include "util/assertion.h"
#include "util/Debug_print.h"
#include "util/try_output.h"
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace Util {

namespace {

std::atomic<void (*)()> last_act{nullptr};

void do_last_act() {
    static std::atomic<bool> begun{false}, done{false};
    thread_local bool inside = false; // the act itself aborts
    void (*const act)() = last_act.load(std::memory_order_acquire);
    if (!act || inside) return;
    inside = true;
    if (!begun.exchange(true)) {
        act();
        done.store(true, std::memory_order_release);
        return;
    }
    for (int ms = 0; ms < 3000 && !done.load(std::memory_order_acquire); ms += 10) {
        const struct timespec pause = {0, 10000000};
        nanosleep(&pause, nullptr);
    }
}

} // namespace

void set_last_act(void (*act)()) { last_act.store(act, std::memory_order_release); }

void flush_and_abort() {
    try_flush(stdout);
    if (Debug_print::debug_file) try_flush(Debug_print::debug_file);
    do_last_act();
    raise(SIGABRT); // abort() flushes all streams, and waits for them, where a sanitizer stands in for it
    abort();
}

void assertion_failed(const char* text, const char* file, unsigned line, const char* function) {
    try_flush(stdout);
    try_printf(stderr, "%s: %s:%u: %s: Assertion `%s' failed.\n", program_invocation_short_name, file, line, function,
               text);
    flush_and_abort();
}

} // namespace Util
