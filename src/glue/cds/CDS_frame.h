// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"

namespace CDS::Remote {

/// What a server of a data block and its clients send each other: a request of a client, or the answer to it. All is
/// little-endian.
///
///     kind 1 | tag 1 | length 2 | contents, `length` bytes | CRC-32 of all before 4
///
/// The answer has the kind and the tag of its request, so that one which comes late is not taken for that of the next;
/// or the kind `refusal`.
///
/// | kind | contents of the request | of the answer |
/// |---|---|---|
/// | `description` | u4 bytes to skip | at most 2048 bytes of the description from there on; the last page is shorter |
/// | `values` | u2 item, u2 start | the values of the item, from `start` inside it (0: from the item itself) on, as far
/// as they fit | | `write` | u2 item, its value | u1 Write_result | | `refusal` | | u1 Refusal |
struct KAV_API Frame {
    enum Kind : char { description = 'D', values = 'V', write = 'W', refusal = 'E' };
    enum Refusal : unsigned char { bad_request = 1, too_many_clients = 2, block_locked = 3 };
    enum Write_result : unsigned char {
        written = 0,
        no_such_item = 1, ///< or it is a container
        not_allowed = 2,  ///< the application's rule says no
        wrong_length = 3  ///< not one value, or not an array of at most as many elements
    };

    /// [bytes] An array of 255 doubles fits, with the identifier that a request puts in front.
    static constexpr int max_contents = 2048;
    static constexpr int head_size = 4, trailer_size = 4;
    static constexpr int max_size = head_size + max_contents + trailer_size; ///< [bytes]

    /// Read the frame at the front of `n` bytes: its size [bytes], 0 when more bytes are needed to tell, -1 when no
    /// frame begins so. `contents` points into the bytes.
    int read(const char* bytes, int n);
    /// Write it to `out`, which has room for it: its size [bytes]. `contents` may stand where it goes already.
    int write_to(char* out) const;

    char kind = 0;
    unsigned char tag = 0;
    const char* contents = nullptr;
    int length = 0; ///< [bytes] of contents, 0..max_contents
};

} // namespace CDS::Remote
