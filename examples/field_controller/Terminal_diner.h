// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diagnostics/Trouble_code_monitor.h"
#include "glue/diner/Diner_protection.h"
#include "glue/jin/JIN_inbox.h"
#include <string>

/// Plays the terminal in the driver's cab: hears what the nodes of the bus tell, and asks those that it does not know
/// yet what they are.
class Terminal_diner : public Diner::Protection {
public:
    explicit Terminal_diner(JIN_stack& stack); ///< which outlives it
    ~Terminal_diner() override;

    using Diner::init;
    void init(module_man& modules);
    std::string view() const; ///< its table of nodes and codes

private:
    static constexpr int period_ms = 200;

    void diner_start() override { submit_timeout(_tick, period_ms); }
    void handle_event(waiter_event&) override;
    void handle_timeout(Timeout&) override;
    using Diner::handle_timeout;

    JIN_stack& _stack;
    JIN_inbox _inbox;
    JIN_grow_message _message;
    Trouble_code_monitor _monitor;
    Timeout _tick;
};
