// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"
#include "util/sl_list.h"
#include <cstdint>

/// A word that may carry a pointer: 32 bits on the board. Integers go into it through `unsigned`, so that no sign bits
/// are spread over the upper half on a 64-bit host.
using event_word_t = uintptr_t;

/// What is posted to a diner: who sends (module id), what (event id), and a data word; optionally a block of bytes,
/// which the record owns. A value; no lock.
class KAV_API waiter_event {
public:
    waiter_event() = default; ///< all zero
    constexpr waiter_event(short module, int event, event_word_t word) : module_id(module), data(word), id(event) {}
    waiter_event(const waiter_event& o); ///< copies the block too
    waiter_event& operator=(const waiter_event& o);
    waiter_event(waiter_event&& o) noexcept;
    waiter_event& operator=(waiter_event&& o) noexcept;
    ~waiter_event() {
        if (extended) release();
    }

    /// Replace the block by a copy of `n` bytes: 1, or 0 when there is no memory (the old block is gone then too).
    /// A null `p` or an `n` of 0 only clears: 0. Blocks belong to extended modules, whose ids are not positive.
    int set_extended_data(const unsigned char* p, unsigned n);
    unsigned get_extended_data_len() const;         ///< [bytes], 0 without a block
    const unsigned char* get_extended_data() const; ///< null without a block; valid while the record stands

    short module_id = 0;               ///< positive: ordinary module; else extended module
    unsigned short repeat = 0;         ///< used inside the queue only
    event_word_t data = 0;             ///< free for the sender
    int32_t id = 0;                    ///< event within the module
    unsigned char* extended = nullptr; ///< heap block: a 32-bit length, then the bytes

private:
    void release();
};

/// A queued event. Nodes belong to a module_man.
class waiter_event_node : public sll_node {
public:
    waiter_event event;
};
