// SPDX-License-Identifier: MIT
#include "glue/cds/CDS_remote.h"
#include "util/Debug_print.h"
#include "util/number_text.h"
#include <algorithm>
#include <cstdint>
#include <cstring>

namespace CDS::Remote {
namespace {

bool is_name_char(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

/// A hexadecimal number that ends at a colon. `text` moves behind the colon; false when there is none.
bool read_number(const char*& text, uint32_t& value) {
    const char* end;
    value = Util::to_ulong32(text, 16, &end);
    if (end == text || *end != ':') return false;
    text = end + 1;
    return true;
}

} // namespace

int Send_buffer::buf_append(const char* data, int length) {
    if (room < 1) return 0;
    if (skip < 0) {
        Debug_print::dprint("\n\nNegative offset!!\n");
        return 0;
    }
    if (length < 1) return 0;
    if (skip > 0) {
        if (skip >= length) {
            skip -= length;
            return 0;
        }
        data += skip;
        length -= skip;
        skip = 0;
    }
    const int stored = std::min(length, room);
    memcpy(position, data, static_cast<size_t>(stored));
    position += stored;
    room -= stored;
    return stored;
}

int Send_buffer::str_append(const char* text) { return buf_append(text, static_cast<int>(strlen(text))); }

/// Encoded in place. What straddles an end of the slice is encoded aside and cut there, byte for byte.
int Send_buffer::append_bits(uint64_t bits, int width) {
    if (skip == 0 && room >= width) {
        Util::bits_to_little_endian(bits, reinterpret_cast<unsigned char*>(position), width);
        position += width;
        room -= width;
    } else if (skip >= width && room > 0) {
        skip -= width;
    } else {
        unsigned char bytes[8];
        Util::bits_to_little_endian(bits, bytes, width);
        buf_append(reinterpret_cast<char*>(bytes), width);
    }
    return width;
}

bool Receive_buffer::struct_start() const { return *position == '{'; }
bool Receive_buffer::struct_finish() const { return *position == '}'; }
bool Receive_buffer::field_sep() const { return *position == ','; }

bool Receive_buffer::pop_one() {
    if (remaining < 1) return false;
    ++position;
    --remaining;
    return *position != 0;
}

bool Receive_buffer::pop_item(Data_item::item_type_t& type_byte, unsigned short& id, int& name_length) {
    const char* at = position;
    uint32_t number;
    if (!read_number(at, number)) return false;
    type_byte = static_cast<Data_item::item_type_t>(number & 0xFF);
    if (!read_number(at, number)) return false;
    id = static_cast<unsigned short>(number);

    const char* const name = at;
    while (is_name_char(*at)) ++at;
    name_length = static_cast<int>(at - name);
    remaining -= static_cast<int>(at - position);
    position = at;
    return true;
}

} // namespace CDS::Remote
