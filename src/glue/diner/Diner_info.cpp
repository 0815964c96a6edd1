// SPDX-License-Identifier: MIT
#include "glue/diner/Diner_info.h"
#include "glue/diner/Diner.h"
#include "util/Debug_print.h"
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
