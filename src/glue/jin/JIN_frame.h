// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"
#include <cstdint>
#include <string>

/// A frame of a CAN bus as it is recorded: one with a 29-bit identifier and up to 8 bytes, and when it came.
struct KAV_API JIN_frame {
    static constexpr unsigned max_bytes = 8;

    /// From a line of a log as `candump -L` writes it, a time in seconds, an interface, identifier and bytes:
    ///
    ///     (1436509052.249713) can0 18FECA80#FFFFD2041F01FFFF
    ///
    /// Whatever follows is not looked at. False for everything else, frames with 11-bit identifiers, without data (RTR)
    /// and of CAN FD among it; the frame may be changed then.
    bool read(const std::string& line);
    /// Such a line, without its end.
    std::string to_line(const char* interface) const;

    int64_t us = 0;          ///< [us] since 1970
    uint32_t identifier = 0; ///< 29 bits
    unsigned size = 0;       ///< [bytes]
    unsigned char bytes[max_bytes] = {};
};
