// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diagnostics/Trouble_code_monitor.h"
#include "glue/jin/JIN_stack.h"
#include <bitset>
#include <deque>

/// What is asked of the nodes: of each one that is heard, once, what it is and which codes it has; and what the user
/// asks for. One request at a time, so that the bus has room for the answers.
class Questions {
public:
    explicit Questions(JIN_stack& stack) : _stack(stack) {}

    void ask(uint32_t pgn, uint8_t destination) { _waiting.push_back({pgn, destination}); }
    /// Ask nodes that were not asked yet.
    void ask_new_ones(const Trouble_code_monitor& monitor);
    /// Send the next one, if there is one and an address. To be called every 50 ms or so. False: nothing was sent.
    bool send_next();

private:
    struct Question {
        uint32_t pgn;
        uint8_t destination;
    };
    JIN_stack& _stack;
    std::deque<Question> _waiting;
    std::bitset<256> _asked;
};
