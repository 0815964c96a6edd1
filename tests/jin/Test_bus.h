// SPDX-License-Identifier: MIT
#pragma once
#include "glue/jin/JIN_inbox.h"
#include "glue/jin/JIN_memory_bus.h"
#include "support/Test_diner.h"
#include "support/frame.h"
#include <string>
#include <utility>

/// "FECA 03>FF 6: D2 04 1F"
inline std::string text_of_message(const JIN_message& m) {
    return text_of("%04X %02X>%02X %d:%s", m.pgn, m.source, m.destination, m.priority, m.size ? " " : "") +
           hex(m.data, m.size);
}

/// What came in, one message after the other.
inline std::string take_all(JIN_inbox& inbox) {
    JIN_grow_message m;
    std::string all;
    while (inbox.receive(m)) all += (all.empty() ? "" : ", ") + text_of_message(m);
    return all;
}

/// A message whose bytes are given as text.
inline JIN_grow_message message(uint32_t pgn, const std::string& bytes, uint8_t to = JIN::global, uint8_t from = 254) {
    JIN_grow_message m(pgn);
    m.append(bytes.data(), static_cast<uint32_t>(bytes.size()));
    m.destination = to;
    m.source = from;
    return m;
}

inline JIN_grow_message claim_of(JIN_name name, uint8_t from) {
    JIN_grow_message m = message(JIN::pgn_address_claimed, "8 bytes.", JIN::global, from);
    name.to_bytes(m.data);
    return m;
}

/// A node, what it is told, and what it receives: all PGNs.
template <class Stack>
struct Node_of {
    template <class... A>
    explicit Node_of(JIN_inbox::Reach reach, A&&... arguments)
        : stack(std::forward<A>(arguments)...), inbox(stack, nullptr, {}, 1 << 16, reach) {
        stack.register_waiter(&told.waiter);
    }
    /// -1: none
    int address() const {
        uint8_t a;
        return stack.address(a) ? a : -1;
    }
    std::string received() { return take_all(inbox); }
    std::string events() { return told.events(); }
    int send(const JIN_message& m) { return stack.send(m); }

    Inbox told;
    Stack stack;
    JIN_inbox inbox;
};

struct Test_node : Node_of<JIN_memory_bus::Node> {
    Test_node(JIN_memory_bus& bus, JIN_name name, uint8_t preferred, JIN_inbox::Reach reach = JIN_inbox::for_this_node,
              module_man& modules = Diner_info_list::get())
        : Node_of(reach, bus, modules, name, preferred) {}
};
