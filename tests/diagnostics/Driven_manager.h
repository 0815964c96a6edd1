// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diagnostics/Diagnostics.h"
#include "glue/diner/Diner_info_list.h"

/// Driven by the test instead of its thread, which stays parked.
struct Driven_manager : Diagnostics {
    explicit Driven_manager(unsigned max_file_bytes = 4096, const char* base = "H", unsigned max_codes = 500)
        : Diagnostics(base, max_file_bytes, max_codes) {
        init(Diner_info_list::get(), nullptr, 0);
        diner_start();
    }
    ~Driven_manager() override { terminate(true); }
    /// What its thread would do now, before or when it gets to its timeouts.
    void turn(bool timeouts = true) {
        lock(-1);
        waiter_event e;
        while (waiter.get_event(&e, Atime(false)) == 0) handle_event(e);
        if (timeouts) handle_timeout();
        unlock();
    }
    /// True when it was stored.
    bool record(unsigned short number) {
        const unsigned before = records_written();
        log_error(1, 0, number);
        turn(false);
        return records_written() > before;
    }
};
