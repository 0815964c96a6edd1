// SPDX-License-Identifier: MIT
#pragma once
#include "Terminal_diner.h"
#include "glue/jin/JIN_memory_bus.h"
#include "glue/jin/JIN_socket_stack.h"
#include <memory>
#include <string>

/// The machine's CAN bus with the controller's node: on a real interface, or in memory, where a second node plays the
/// terminal.
class Machine_bus {
public:
    /// `interface` empty: in memory.
    Machine_bus(module_man& modules, const std::string& interface);

    JIN_stack& controller() { return *_controller; }
    /// Print the bus as the terminal sees it; on a real interface, the controller's address.
    void print();

private:
    static constexpr uint8_t preferred = 140, terminal_address = 38; ///< no source of the history

    JIN_memory_bus _bus;
    std::unique_ptr<JIN_stack> _controller, _terminal_node;
    std::unique_ptr<Terminal_diner> _terminal;
};
