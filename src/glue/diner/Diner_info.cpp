// SPDX-License-Identifier: MIT
#include "glue/diner/Diner_info.h"
#include "glue/diner/Diner.h"
#include "util/Debug_print.h"
#include "util/ticks.h"
#include <algorithm>
#include <cstdio>
#include <cstring>

static const char* activity_name(unsigned char activity) {
    static const char* const names[] = {"Idl", "Evt", "Tmt"};
    return names[std::min<unsigned char>(activity, Diner_info::activity_timeout)];
}

Diner_info::Diner_info(Diner& d) : diner(d) {}

void Diner_info::print(bool to_debug, bool full_path) const {
    const char* file = checkpoint_file.load(std::memory_order_relaxed);
    const char* slash = strrchr(file, '/');
    if (slash && !full_path) file = slash + 1;
    // Without the diner's lock: the table must come out also when a diner is stuck.
    const int state = diner.state.load(std::memory_order_acquire);
    char row[256];
    const int n =
        snprintf(row, sizeof row, "%9s %5s-%d %3s %8d %7d %s:%d\n", diner.descriptor.name, Diner::state_name(state),
                 diner.start_pending() ? 1 : 0, activity_name(activity.load(std::memory_order_relaxed)),
                 static_cast<int>(event_count.load(std::memory_order_relaxed)),
                 static_cast<int>(timeout_count.load(std::memory_order_relaxed)), file,
                 checkpoint_line.load(std::memory_order_relaxed));
    const int used = std::min(n, static_cast<int>(sizeof row) - 1);
    append_print_info(row + used, static_cast<int>(sizeof row) - used);
    if (to_debug) {
        Debug_print::dprint("%s", row);
    } else {
        printf("%s", row);
    }
}

void Diner_info::append_print_info(const char*, int) const {}

void Diner_info::test_lock() {
    Debug_print::bprint("Testing %9s", diner.descriptor.name);
    { const Diner::Held held(diner); }
    Debug_print::bprint(".. Ok\n");
}

int64_t Diner_info::handler_age_ns() const {
    const uint64_t since = handler_since.load(std::memory_order_acquire);
    if (since == 0) return 0;
    const auto age = static_cast<int64_t>(Util::ticks() - since); // another core's counter may be behind
    return std::max<int64_t>(1, static_cast<int64_t>(static_cast<double>(age) * Util::ns_per_tick()));
}

bool Diner_info::is_running() const { return diner.state.load(std::memory_order_acquire) == Diner::state_run; }

void Diner_info::reset_figures() {
    handler_time.reset();
    wait_time.reset();
    worst_late_ms.store(0, std::memory_order_relaxed);
    diner.waiter.reset_longest_queue();
}

void Diner_info::print_figures(bool to_debug) const {
    const Time_figure::Values handler = handler_time.values(), wait = wait_time.values();
    char row[128];
    snprintf(row, sizeof row, "%9s %9.1f %9.1f %9.1f %9.1f %8d %8d\n", diner.descriptor.name, handler.mean_us,
             handler.worst_us, wait.mean_us, wait.worst_us, worst_late_ms.load(std::memory_order_relaxed),
             diner.waiter.longest_queue());
    if (to_debug) {
        Debug_print::dprint("%s", row);
    } else {
        printf("%s", row);
    }
}

void Diner_info::handler_begins(uint64_t posted_at, uint32_t weight) {
    const uint64_t now = Util::ticks();
    handler_since.store(now, std::memory_order_relaxed);
    if (posted_at) wait_time.add(now - posted_at, weight);
}

uint64_t Diner_info::handler_ends() {
    const uint64_t since = handler_since.load(std::memory_order_relaxed);
    if (since == 0) return 0;
    const uint64_t now = Util::ticks();
    handler_time.add(now - since);
    handler_since.store(0, std::memory_order_release); // who sees it sees the figures
    return now;
}
