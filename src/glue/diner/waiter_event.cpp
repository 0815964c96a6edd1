// SPDX-License-Identifier: MIT
#include "glue/diner/waiter_event.h"
#include <climits>
#include <cstdlib>
#include <cstring>
#include <utility>

// The board's applications were laid out with these sizes.
static_assert(sizeof(void*) != 4 || (sizeof(waiter_event) == 16 && sizeof(waiter_event_node) == 20));

namespace {

/// The block is laid out as a 32-bit length and the bytes. Three spare bytes belong to the layout: users that read the
/// bytes in whole words may not run past the block.
constexpr unsigned length_size = sizeof(uint32_t);
constexpr unsigned overhead = length_size + 3;

/// A block with a copy of `n` bytes, null when there is no memory.
unsigned char* make_block(const unsigned char* p, unsigned n) {
    if (n > UINT_MAX - overhead) return nullptr;
    auto* block = static_cast<unsigned char*>(std::malloc(size_t(n) + overhead));
    if (!block) return nullptr;
    const uint32_t length = n;
    std::memcpy(block, &length, length_size);
    std::memcpy(block + length_size, p, n);
    return block;
}

} // namespace

waiter_event::waiter_event(const waiter_event& o) : module_id(o.module_id), repeat(o.repeat), data(o.data), id(o.id) {
    set_extended_data(o.get_extended_data(), o.get_extended_data_len());
}

waiter_event& waiter_event::operator=(const waiter_event& o) {
    module_id = o.module_id;
    repeat = o.repeat;
    data = o.data;
    id = o.id;
    if (extended || o.extended) set_extended_data(o.get_extended_data(), o.get_extended_data_len());
    return *this;
}

waiter_event::waiter_event(waiter_event&& o) noexcept
    : module_id(o.module_id), repeat(o.repeat), data(o.data), id(o.id), extended(std::exchange(o.extended, nullptr)) {}

waiter_event& waiter_event::operator=(waiter_event&& o) noexcept {
    unsigned char* block = std::exchange(o.extended, nullptr);
    if (extended) release();
    module_id = o.module_id;
    repeat = o.repeat;
    data = o.data;
    id = o.id;
    extended = block;
    return *this;
}

int waiter_event::set_extended_data(const unsigned char* p, unsigned n) {
    // The copy is made first: `p` may point into the block that is about to go.
    unsigned char* block = p && n ? make_block(p, n) : nullptr;
    release();
    extended = block;
    return block ? 1 : 0;
}

unsigned waiter_event::get_extended_data_len() const {
    if (!extended) return 0;
    uint32_t length;
    std::memcpy(&length, extended, length_size);
    return length;
}

const unsigned char* waiter_event::get_extended_data() const { return extended ? extended + length_size : nullptr; }

void waiter_event::release() {
    std::free(extended);
    extended = nullptr;
}
