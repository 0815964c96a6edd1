// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"
#include <cstdint>

/// A view of a caller's bytes with typed access in both byte orders. It owns nothing; copying it copies pointer and
/// size. No lock.
///
/// Getters return 0 for a field that does not lie wholly inside the view. Setters write without a check: the caller
/// sizes the buffer.
class KAV_API Binary_message {
public:
    Binary_message(void* bytes, uint32_t n) : data(static_cast<unsigned char*>(bytes)), size(n) {}
    Binary_message(const Binary_message&) = default;
    Binary_message& operator=(const Binary_message&) = default;
    virtual ~Binary_message();

    unsigned char* data; ///< not owned
    uint32_t size;       ///< [bytes]
};
