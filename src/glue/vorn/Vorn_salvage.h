// SPDX-License-Identifier: MIT
#pragma once
#include "glue/vorn/Vorn_checkers.h"
#include "util/api.h"

/// Finds the sound frames inside of what a parser had to give up: texts met out of step, replies that noise feigned,
/// frames that fail their checksum. Give it each of these as it comes, and say when a sound frame came between:
///
///     if (kind == Vorn_parser::kind_frame && Vorn_message(packet, len).check_checksum()) {
///         salvage.forget();
///         handle(packet, len);
///     } else {
///         salvage.add(packet, len);
///         while (unsigned char* frame = salvage.next(n)) handle(frame, n);
///     }
///
/// Set the parser's keep_on_reject, so that no byte is missing. A frame is sound when the catalogue knows it, with a
/// length that it can have and a checksum that is right, in either form, and a line end follows. It may be spread over
/// several packets, as line ends in its body part them; it is then found with the last one. Messages of text carry no
/// checksum and are not looked for. A checksum of 8 bits is right by chance once in 256 times: a few faults of a line
/// in ten thousand give a frame that nobody sent.
///
/// For one thread. No allocation. Cost: a look at each byte, and a checksum where a header could stand; what may be the
/// start of a frame is looked at again with each packet, as far back as the longest possible frame.
class KAV_API Vorn_salvage {
public:
    /// Append a packet to what is kept [bytes]; copied. Of more than `capacity` bytes the last ones are taken.
    void add(const unsigned char* bytes, int length);
    /// The next sound frame: its first byte, and in `len` its bytes with one line end behind it, as a parser gives
    /// them. Null and 0 when there is none. Frames do not overlap. The bytes are the salvage's own, until add().
    unsigned char* next(int& len);
    /// What is kept and what comes do not belong together.
    void forget() { _size = _position = _pending = 0; }

    Vorn_length_checker lengths; ///< what is a possible frame

    static constexpr int capacity = 8400; ///< [bytes] two of the parser's longest packets

private:
    enum Verdict { no_frame, incomplete, sound };
    Verdict judge(int position, int& len) const;
    void drop_before(int position);

    unsigned char _bytes[capacity];
    int _size = 0;
    int _position = 0; ///< of the next look
    int _pending = 0;  ///< of the first frame that may be incomplete; `_position` when there is none
};
