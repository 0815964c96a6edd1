// SPDX-License-Identifier: MIT
#pragma once
#include "glue/cds/Data_item.h"
#include "util/api.h"

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
    int append_BOOL(bool);
    int append_CHAR(char);
    int append_INT8(signed char);
    int append_UINT8(unsigned char);
    int append_INT16(short);
    int append_UINT16(unsigned short);
    int append_INT32(int);
    int append_UINT32(unsigned int);
    int append_INT64(long long);
    int append_UINT64(unsigned long long);
    int append_FLOAT(float);
    int append_DOUBLE(double);

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
    bool pop_BOOL(bool&);
    bool pop_CHAR(char&);
    bool pop_INT8(signed char&);
    bool pop_UINT8(unsigned char&);
    bool pop_INT16(short&);
    bool pop_UINT16(unsigned short&);
    bool pop_INT32(int&);
    bool pop_UINT32(unsigned int&);
    bool pop_INT64(long long&);
    bool pop_UINT64(unsigned long long&);
    bool pop_FLOAT(float&);
    bool pop_DOUBLE(double&);

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
