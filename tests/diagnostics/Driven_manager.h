// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diagnostics/Diagnostics.h"
#include "glue/diner/Diner_info_list.h"

/// Driven by the test instead of its thread, which stays parked.
class Driven_manager : public Diagnostics {
public:
    explicit Driven_manager(JIN_stack* stack, Trouble_code_messages::Mode mode = Trouble_code_messages::Mode::iso,
                            unsigned max_codes = 500)
        : Diagnostics("H", 4096, max_codes) {
        init(Diner_info_list::get(), nullptr, 0);
        if (stack) attach(*stack, mode);
        diner_start();
    }
    ~Driven_manager() override { terminate(true); }
    /// What its thread would do now.
    void turn() {
        lock(-1);
        waiter_event e;
        while (waiter.get_event(&e, Atime(false)) == 0) handle_event(e);
        handle_timeout();
        unlock();
    }
};
