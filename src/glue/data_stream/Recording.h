// SPDX-License-Identifier: MIT
#pragma once
#include <cstdint>

/// The file of a timed recording, byte for byte:
///
///     head:    "KAVQTREC", u1 version, u1 0, u2 [ms] and u4 [s since 1970] when it was begun
///     record:  u4 [ms] since the record before, or since the beginning; u2 length n; u1 kind; u1 0; n bytes
///
/// Numbers are little-endian. A record holds what was there at once. There is no end mark: a recording that a power cut
/// ends is good up to its last whole record, and so are the bytes that are there of a cut one.
///
/// A reader refuses another version. Kinds that it does not know it passes over, so that they may be added.
namespace Recording {

constexpr char magic[] = "KAVQTREC"; ///< 8 bytes without the zero
constexpr uint32_t magic_size = 8;   ///< [bytes]
constexpr unsigned char version = 1;
constexpr uint32_t head_size = 16;         ///< [bytes]
constexpr uint32_t record_head_size = 8;   ///< [bytes]
constexpr uint32_t max_record_size = 4200; ///< [bytes] without its head, at least 1

enum Kind : unsigned char {
    kind_received = 0,
    kind_sent = 1,
};

} // namespace Recording
