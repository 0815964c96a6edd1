// SPDX-License-Identifier: MIT
#pragma once
#include "glue/vorn/Binary_message.h"

/// A framed message of the receiver, as a view of the caller's bytes:
///
///     0  2  identifier, two characters
///     2  3  length L of the body, three hexadecimal digits, 0..4095
///     5  L  body; in standard messages its last byte is the checksum of everything before it
///
/// The bytes may go on behind the frame with its line end, which then belongs to the view.
class KAV_API Vorn_message : public Binary_message {
public:
    static constexpr uint32_t header_size = 5; ///< [bytes]
    static constexpr uint32_t max_body = 4095; ///< [bytes]

    Vorn_message(void* bytes, uint32_t n) : Binary_message(bytes, n) {}
    explicit Vorn_message(const Binary_message& m) : Binary_message(m) {}
    Vorn_message(const Vorn_message&) = default;
    Vorn_message& operator=(const Vorn_message&) = default;
    ~Vorn_message() override;

    /// The identifier as a number: first character in the low byte, second in the high byte. 0 below two bytes.
    uint16_t get_id() const { return get_uint16_le(0); }

    /// L; 0 when the view is shorter than a header or a length digit is none, which also goes to the debug output as
    /// "contains non-hex digit" (no line end).
    uint32_t get_msg_len() const;

    /// The checksum of the first `count` bytes, of all when there are fewer. Per byte the sum is rotated left by 2 bits
    /// and the byte is exclusive-ored in; a last rotation closes it.
    uint8_t compute_8bit_checksum(uint32_t count) const;

    /// True for a frame whose checksum is right. The view must hold the frame *and* end in a line end (CR or LF), even
    /// where the sum alone would do: a view cut or extended elsewhere fails. In place of the sum byte, "@", two
    /// hexadecimal digits and the line end may close the view; they give the sum of the first L + 3 bytes.
    bool check_checksum() const;
    /// Put the checksum into the last byte of the body; false when the view does not hold the frame.
    bool set_checksum();
    /// True when the identifier is `id` and check_checksum() holds.
    bool validate(uint16_t id) const;

    /// Write the header of a frame of `total_size` bytes, line end not counted (digits in upper case); `size` stays as
    /// it is. False, and nothing written, for a total below 5 or a body above 4095.
    bool setup(uint16_t id, uint32_t total_size);
    /// Shorten the frame to a body of `body_len` bytes and the view to the frame; the digits become lower case. False,
    /// and nothing changed, when the view is shorter than that or the body above 4095.
    bool reduce_size_to(uint32_t body_len);

protected:
    /// Exactly three digits: the byte behind them belongs to the body.
    void write_length(uint32_t body_len, bool upper_case);
};
