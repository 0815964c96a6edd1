// SPDX-License-Identifier: MIT
#pragma once
#include "glue/jin/JIN_message.h"
#include "util/api.h"

/// A message that owns its bytes, on the heap. The room only grows, so a message that is built again and again, or
/// received into, allocates nothing once it has been as long as it gets; the constructor can see to that.
class KAV_API JIN_grow_message : public JIN_message {
public:
    /// Empty, with room for `room` [bytes]. Where there is no memory the room is smaller: the calls below tell.
    explicit JIN_grow_message(uint32_t number = 0, uint32_t room = 8);
    JIN_grow_message(const JIN_grow_message& o); ///< with bytes of its own; empty when there is no memory
    JIN_grow_message& operator=(const JIN_grow_message& o);
    ~JIN_grow_message() override;

    uint32_t room() const { return _room; } ///< [bytes]
    bool reserve(uint32_t n);               ///< false: no memory, or above 1785. Moves the bytes.
    /// Make it `n` [bytes] long; new ones are 0xFF, which the bus reads as "not available". False as above, and nothing
    /// changes then.
    bool resize(uint32_t n);
    void clear() { size = 0; }

    // At the end; false as above, and nothing changes then.
    bool append(const void* bytes, uint32_t n);
    bool append_uint8(uint8_t v) { return append(&v, 1); }
    bool append_uint16_le(uint16_t v);
    bool append_uint32_le(uint32_t v);

private:
    uint32_t _room = 0;
};
