// SPDX-License-Identifier: MIT
#pragma once
#include "glue/vorn/Vorn_message.h"
#include "util/api.h"
#include <cstdint>

namespace Diagnostics_messages {

constexpr unsigned short id_SP = 'S' | 'P' << 8;

/// One record of the diagnostic history: a standard frame of 16 bytes, little-endian.
///
///     5  u1 source address   6  u2 first error word   8  u2 second error word
///     10 u4 time [s]         14 u1 milliseconds / 4   15 checksum
class KAV_API Msg_SP : public Vorn_message {
public:
    static constexpr unsigned size_total = 16; ///< [bytes] the frame, without a line end

    explicit Msg_SP(const Vorn_message& frame) : Vorn_message(frame) {}

    unsigned char src() const { return get_uint8(5); }
    unsigned short a() const { return get_uint16_le(6); }
    unsigned short b() const { return get_uint16_le(8); }
    unsigned int time() const { return get_uint32_le(10); } ///< [s] since the epoch; 0: skipped
    unsigned short ms() const { return static_cast<unsigned short>(get_uint8(14) * 4); } ///< [ms] in steps of 4
    uint64_t time_ms() const { return time() * uint64_t{1000} + ms(); }                  ///< [ms] since the epoch
};

/// Write a record into `bytes`, which holds Msg_SP::size_total. `ms` [ms] is below 1000.
KAV_API void build_SP(unsigned char* bytes, unsigned char src, unsigned short a, unsigned short b, unsigned int time,
                      unsigned short ms);

} // namespace Diagnostics_messages
