// SPDX-License-Identifier: MIT
#pragma once
#include "glue/cds/Data_item.h"
#include "util/api.h"
#include "util/bytes.h"
#include <cstdint>

/// The remote format: values in a fixed little-endian encoding, nothing between them, and the description of a tree as
/// text. Both buffers are plain values over the caller's memory; one thread at a time.
namespace CDS::Remote {

/// Writes the slice of a stream that begins `skip` bytes into it and is `room` bytes long. What lies outside is dropped
/// without a word: a short buffer is a page, not an error. The next page is had by building the stream again with
/// `skip` advanced; `room` at 0 tells that there may be one.
class KAV_API Send_buffer {
public:
    Send_buffer(char* buffer, int skip_bytes, int room_bytes) : position(buffer), skip(skip_bytes), room(room_bytes) {}

    /// The bytes stored, 0..length. A negative `skip` stores nothing and says so.
    int buf_append(const char* data, int length);
    int str_append(const char* text);

    /// Encode and append; the width of the encoding, whether or not the bytes fell into the slice.
    int append_BOOL(bool v) { return append(v); }
    int append_CHAR(char v) { return append(v); }
    int append_INT8(signed char v) { return append(v); }
    int append_UINT8(unsigned char v) { return append(v); }
    int append_INT16(short v) { return append(v); }
    int append_UINT16(unsigned short v) { return append(v); }
    int append_INT32(int v) { return append(v); }
    int append_UINT32(unsigned int v) { return append(v); }
    int append_INT64(long long v) { return append(v); }
    int append_UINT64(unsigned long long v) { return append(v); }
    int append_FLOAT(float v) { return append(v); }
    int append_DOUBLE(double v) { return append(v); }
    template <class T>
    int append(T v) { ///< a value of any base type
        constexpr int width = sizeof v;
        if (skip != 0 || room < width) return append_bits(Util::to_bits(v), width);
        Util::to_little_endian(v, reinterpret_cast<unsigned char*>(position));
        position += width;
        room -= width;
        return width;
    }
    int append_bits(uint64_t bits, int width); ///< the low `width` bytes: 1, 2, 4 or 8

    char* position; ///< where the next byte goes
    int skip;       ///< [bytes] still to be dropped before writing begins
    int room;       ///< [bytes] that may still be written
};

/// Reads values and descriptions.
class KAV_API Receive_buffer {
public:
    /// Text, unlike values, ends with a zero behind `length`.
    Receive_buffer(const char* data, int length) : position(data), remaining(length) {}

    /// Decode the next value; false when too few bytes remain, nothing changed then.
    bool pop_BOOL(bool& v) { return pop(v); }
    bool pop_CHAR(char& v) { return pop(v); }
    bool pop_INT8(signed char& v) { return pop(v); }
    bool pop_UINT8(unsigned char& v) { return pop(v); }
    bool pop_INT16(short& v) { return pop(v); }
    bool pop_UINT16(unsigned short& v) { return pop(v); }
    bool pop_INT32(int& v) { return pop(v); }
    bool pop_UINT32(unsigned int& v) { return pop(v); }
    bool pop_INT64(long long& v) { return pop(v); }
    bool pop_UINT64(unsigned long long& v) { return pop(v); }
    bool pop_FLOAT(float& v) { return pop(v); }
    bool pop_DOUBLE(double& v) { return pop(v); }
    template <class T>
    bool pop(T& v) { ///< a value of any base type
        uint64_t bits;
        if (!pop_bits(bits, sizeof v)) return false;
        v = Util::from_bits<T>(bits);
        return true;
    }
    bool pop_bits(uint64_t& bits, int width) { ///< as many bytes, extended by zeros
        if (remaining < width) return false;
        bits = Util::bits_from_little_endian(reinterpret_cast<const unsigned char*>(position), width);
        position += width;
        remaining -= width;
        return true;
    }

    /// Whether '{', '}' or ',' is at `position`, whatever `remaining` says; they consume nothing.
    bool struct_start() const;
    bool struct_finish() const;
    bool field_sep() const;
    /// Step over one byte; whether another follows that is not zero.
    bool pop_one();
    /// Read one header "type:id:name": the type byte, the id, and the length of the name, which lies in the bytes
    /// before the new position. False, and nothing consumed, when it is no header.
    bool pop_item(Data_item::item_type_t& type_byte, unsigned short& id, int& name_length);

    const char* position; ///< the next byte
    int remaining;        ///< [bytes] left
};

} // namespace CDS::Remote
