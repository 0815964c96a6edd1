// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diagnostics/DM1_broadcast.h"
#include "glue/diagnostics/Trouble_codes.h"
#include "glue/jin/JIN_inbox.h"
#include "util/api.h"

class Diner;
class Request_answers;

/// The manager's end of a bus: tells and answers what its codes are, does what is asked for, and watches the address.
/// All members belong to the manager's thread or are called under its lock.
///
/// Two decisions for the technician at the machine: a code that is cleared while its condition is set is seen to go and
/// comes back with the next tick; and what was asked by a node without address is answered to all, but DM22, which is
/// answered to one node only, is not obeyed then.
class KAV_INTERNAL Diagnostics_bus {
public:
    static constexpr int retry_ms = 100;       ///< [ms] for answers, should the stack's event be lost
    static constexpr int violation_ms = 10000; ///< [ms] that the code of a violation stays after the last one
    /// The code for another node that uses our address. Known from one source: ISO 11783-5 as an open stack has it.
    static constexpr uint32_t spn_violation = 2000; ///< plus the address
    static constexpr unsigned fmi_violation = 31;

    /// The stack outlives it.
    Diagnostics_bus(Diner& diner, JIN_stack& stack, Trouble_codes& codes, Request_answers& answers,
                    Trouble_code_messages::Mode mode);
    ~Diagnostics_bus();
    Diagnostics_bus(const Diagnostics_bus&) = delete;
    Diagnostics_bus& operator=(const Diagnostics_bus&) = delete;

    /// Codes may have changed, or the diner was stopped and started: look at everything.
    void update();
    bool handle(Timeout& t);            ///< true when it was the bus's; update() is to follow
    bool handle(const waiter_event& e); ///< true when it was the bus's; update() is to follow
    uint8_t address() const;            ///< the own one, JIN::no_address while there is none

private:
    void receive();
    void take_DM22(const JIN_message& m);
    void violated();
    void end_violation();
    void pump();

    Diner& _diner;
    JIN_stack& _stack;
    Trouble_codes& _codes;
    Request_answers& _answers;
    JIN_inbox _inbox;
    JIN_grow_message _received{0, JIN::max_length};
    DM1_broadcast _broadcast;
    Timeout _retry, _violation_end;
    uint32_t _violated_spn = 0; ///< the code that stands for a violation now; 0: none
};
