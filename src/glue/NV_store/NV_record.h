// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"
#include "util/bytes.h"
#include <cstdint>

namespace NV_store {

// The grammar of the stored settings, for all who write, load, scan or show them. A save is a sequence of nested
// frames:
//
//     container   type, 0x01, id (2)   start header
//                 child records        values or containers
//                 type, 0x02, id (2)   end header
//                 CRC-32 (4)           of all of the above, from the start header on, begun with "ZEW6"
//     value       type, 0x09, id (2), content

enum Marker : unsigned char { marker_start = 1, marker_end = 2, marker_value = 9 };

/// What each record begins with: four bytes on the medium, in this order.
struct Record_header {
    static constexpr int size = 4; ///< [bytes]

    static Record_header decode(const unsigned char* bytes) {
        return {bytes[0], bytes[1], Util::from_little_endian<unsigned short>(bytes + 2)};
    }
    void encode(unsigned char* bytes) const {
        bytes[0] = type_byte;
        bytes[1] = marker;
        Util::to_little_endian(id, bytes + 2);
    }
    bool operator==(const Record_header& o) const {
        return type_byte == o.type_byte && marker == o.marker && id == o.id;
    }

    unsigned char type_byte; ///< shape and base type, as Data_item::get_type_byte()
    unsigned char marker;    ///< one of Marker
    unsigned short id;       ///< settings identifier
};

constexpr int record_crc_size = 4; ///< [bytes]
constexpr int max_path_ids = 16;   ///< [levels]

/// The CRC-32 that a container's is begun with.
KAV_API uint32_t record_crc_seed();

/// What a type byte promises behind its header.
struct KAV_INTERNAL Record_content {
    enum Kind : unsigned char {
        unknown,   ///< no image holds it
        container, ///< records up to the end header
        number,    ///< `width` bytes
        array,     ///< a count byte and that many numbers; the library writes none, and none is of 64-bit integers
        path       ///< a count byte, at most max_path_ids, and that many identifiers: the target of an NV_pointer
    };

    static Record_content of(unsigned char type_byte);
    bool is_counted() const { return kind == array || kind == path; }
    /// Whether a load reads past such a record when the tree has no item for it. Past a path it does not, and past a
    /// container not past its CRC, which it reads as the next header: files of old rely on it.
    bool can_be_skipped() const { return kind == container || kind == number || kind == array; }
    /// [bytes] of a value that begins at `p`; -1 when it is none, or `n` [bytes] do not hold its count.
    int value_size(const unsigned char* p, int n) const {
        if (kind == number) return width;
        if (!is_counted() || n < 1 || (kind == path && p[0] > max_path_ids)) return -1;
        return 1 + p[0] * width;
    }

    Kind kind;
    unsigned char width; ///< [bytes] of the number, of an element or an identifier; 0 for the others
};

} // namespace NV_store
