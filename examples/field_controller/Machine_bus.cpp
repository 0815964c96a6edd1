// SPDX-License-Identifier: MIT
#include "Machine_bus.h"
#include <cstdio>

namespace {

JIN_name name(unsigned function, unsigned number) {
    JIN_name n;
    n.set_arbitrary_address(true).set_industry_group(2).set_function(function).set_identity_number(number);
    return n;
}

} // namespace

Machine_bus::Machine_bus(module_man& modules, const std::string& interface) {
    if (!interface.empty()) {
        auto node = std::make_unique<JIN_socket_stack>(modules, interface.c_str(), name(130, 1), preferred);
        node->start();
        _controller = std::move(node);
        return;
    }
    _bus.start();
    _controller = std::make_unique<JIN_memory_bus::Node>(_bus, modules, name(130, 1), preferred);
    _terminal_node = std::make_unique<JIN_memory_bus::Node>(_bus, modules, name(29, 2), terminal_address);
    _terminal = std::make_unique<Terminal_diner>(*_terminal_node);
    _terminal->init(modules);
    _terminal->start();
}

void Machine_bus::print() {
    if (_terminal) {
        printf("\nThe bus as the terminal sees it\n%s", _terminal->view().c_str());
        return;
    }
    uint8_t own;
    if (_controller->address(own))
        printf("\nOn the bus the controller has address %d\n", int{own});
    else
        puts("\nThe controller has no address on the bus");
}
