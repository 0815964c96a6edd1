// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"
#include <cstdint>

/// A view of a caller's bytes with typed access in both byte orders. It owns nothing; copying it copies pointer and
/// size. No lock.
///
/// Getters return 0 for a field that does not lie wholly inside the view. Setters write without a check, unless it is
/// said: the caller sizes the buffer. Offsets count from the first byte of the view; no offset or length wraps.
class KAV_API Binary_message {
public:
    /// A bit field of up to 32 bits that spans at most 4 bytes, made once and used at any offset.
    ///
    /// Bits are numbered from the first byte on: in the msb form from the top bit of each byte down, as written on
    /// paper, in the lsb form from its bottom bit up, as in a little-endian number. Field of 4 bits from bit 6, two
    /// bytes:
    ///
    ///     msb  ......XX XX......     bytes 03 C0, shift 6
    ///     lsb  XX...... ......XX     bytes C0 03, shift 6
    class KAV_API Mask {
    public:
        /// A field that reaches beyond 4 bytes ends the process with abort().
        Mask(uint32_t first_bit, uint32_t nbits, bool msb_first);

        unsigned char bytes[4] = {}; ///< in message order; 0 behind the last byte of the field
        uint32_t shift;              ///< [bits] from the field's place in the gathered number down to bit 0
        uint32_t nbytes;             ///< from the byte at the offset to the last one of the field, 0..4
    };

    Binary_message(void* bytes, uint32_t n) : data(static_cast<unsigned char*>(bytes)), size(n) {}
    Binary_message(const Binary_message&) = default;
    Binary_message& operator=(const Binary_message&) = default;
    virtual ~Binary_message();

    /// True when the `n` bytes from `offset` lie inside the view.
    bool holds(uint32_t offset, uint32_t n) const { return uint64_t(offset) + n <= size; }

    int8_t get_int8(uint32_t offset) const;
    uint8_t get_uint8(uint32_t offset) const;

    int16_t get_int16_le(uint32_t offset) const;
    uint16_t get_uint16_le(uint32_t offset) const;
    int32_t get_int32_le(uint32_t offset) const;
    uint32_t get_uint32_le(uint32_t offset) const;
    int64_t get_int64_le(uint32_t offset) const;
    uint64_t get_uint64_le(uint32_t offset) const;

    int16_t get_int16_be(uint32_t offset) const;
    uint16_t get_uint16_be(uint32_t offset) const;
    int32_t get_int32_be(uint32_t offset) const;
    uint32_t get_uint32_be(uint32_t offset) const;
    int64_t get_int64_be(uint32_t offset) const;
    uint64_t get_uint64_be(uint32_t offset) const;

    /// Three bytes, 0..16777215. The signed forms do not extend the sign either: receivers' fields of this width are
    /// counters. Out of range these four, get_double and get_float also print "Binary_message: index out of range %d\n"
    /// with a number that names the getter, when the debug category jdb_receiver is on.
    int32_t get_int24_le(uint32_t offset) const;
    uint32_t get_uint24_le(uint32_t offset) const;
    int32_t get_int24_be(uint32_t offset) const;
    uint32_t get_uint24_be(uint32_t offset) const;

    /// Little-endian IEEE 754, 8 and 4 bytes.
    double get_double(uint32_t offset) const;
    float get_float(uint32_t offset) const;

    void set_int8(uint32_t offset, int8_t value);
    void set_uint8(uint32_t offset, uint8_t value);

    void set_int16_le(uint32_t offset, int16_t value);
    void set_uint16_le(uint32_t offset, uint16_t value);
    void set_int24_le(uint32_t offset, int32_t value);
    void set_uint24_le(uint32_t offset, uint32_t value);
    void set_int32_le(uint32_t offset, int32_t value);
    void set_uint32_le(uint32_t offset, uint32_t value);
    void set_int64_le(uint32_t offset, int64_t value);
    void set_uint64_le(uint32_t offset, uint64_t value);

    void set_int16_be(uint32_t offset, int16_t value);
    void set_uint16_be(uint32_t offset, uint16_t value);
    void set_int24_be(uint32_t offset, int32_t value);
    void set_uint24_be(uint32_t offset, uint32_t value);
    void set_int32_be(uint32_t offset, int32_t value);
    void set_uint32_be(uint32_t offset, uint32_t value);
    void set_int64_be(uint32_t offset, int64_t value);
    void set_uint64_be(uint32_t offset, uint64_t value);

    void set_double(uint32_t offset, double value);
    void set_float(uint32_t offset, float value);

    /// The text at `offset` when its zero stands among the `maxlen` + 1 bytes there, all inside the view; else "".
    const char* get_string(uint32_t offset, uint32_t maxlen) const;
    /// The text at `offset` when its zero stands before the end of the view, else ""; null for an offset above `size`.
    const char* get_partial_string(uint32_t offset) const;
    /// Copy at most `len` characters, fill up to `len` with zeros and put one more zero behind. Writes nothing when
    /// these `len` + 1 bytes are not inside the view.
    void set_string(uint32_t offset, const char* text, uint32_t len);

    /// The `count` bytes at `offset`, in place; null when they are not inside the view.
    unsigned char* get_bytes(uint32_t offset, uint32_t count) const;
    /// Copy them out; false, and nothing copied, when they are not inside the view.
    bool get_bytes(uint32_t offset, void* dst, uint32_t count) const;
    /// Fill with the low byte of `value`.
    void set_bytes(uint32_t offset, int value, uint32_t count);
    void set_bytes(uint32_t offset, const void* src, uint32_t count);
    /// Copy out the first `count` bytes; false, and nothing copied, when there are fewer.
    bool get_data(void* dst, uint32_t count) const;

    /// Bit `bit` (0 least significant, 7 most) of the byte at `offset`; false for a higher bit, which setting ignores.
    bool get_bit_msb(uint32_t offset, uint32_t bit) const;
    void set_bit_msb(uint32_t offset, bool value, uint32_t bit);

    /// The field that a Mask of these numbers describes, as a number. Bytes outside the view count as 0.
    uint32_t get_bits_lsb(uint32_t offset, uint32_t first_bit, uint32_t nbits) const;
    uint32_t get_bits_msb(uint32_t offset, uint32_t first_bit, uint32_t nbits) const;
    /// Bits of `value` above the field are ignored; the bits beside the field keep their values.
    void set_bits_lsb(uint32_t offset, uint32_t first_bit, uint32_t nbits, uint32_t value);
    void set_bits_msb(uint32_t offset, uint32_t first_bit, uint32_t nbits, uint32_t value);

    /// The masked bytes of a field as they stand, the first one most significant, not shifted down.
    uint32_t get_bits(uint32_t offset, const Mask& mask) const;
    /// The reverse of get_bits.
    void set_bits(uint32_t offset, uint32_t value, const Mask& mask);

    /// The low `nbits` bits, rounded up to whole bytes (at most 4), in reverse byte order; the rest becomes 0.
    static uint32_t swap_byte_order(uint32_t value, uint32_t nbits);
    /// The low `nbits` bits (at most 32) in reverse order; the rest becomes 0.
    static uint32_t swap_bit_order(uint32_t value, uint32_t nbits);

    /// One debug line for each byte: index and value.
    void print() const;

    unsigned char* data; ///< not owned
    uint32_t size;       ///< [bytes]
};
