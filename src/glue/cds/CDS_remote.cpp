// SPDX-License-Identifier: MIT
#include "glue/cds/CDS_remote.h"
#include "glue/cds/Base_types.h"
#include "util/Debug_print.h"
#include "util/bytes.h"
#include "util/number_text.h"
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <type_traits>

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

unsigned char* bytes_of(char* p) { return reinterpret_cast<unsigned char*>(p); }

/// Encode in place. What straddles an end of the slice is encoded aside and cut there, byte for byte.
template <class T>
int append(Send_buffer& out, T value) {
    constexpr int width = sizeof(T);
    if (out.skip == 0 && out.room >= width) {
        Util::to_little_endian(value, bytes_of(out.position));
        out.position += width;
        out.room -= width;
    } else if (out.skip >= width && out.room > 0) {
        out.skip -= width;
    } else {
        char bytes[width];
        Util::to_little_endian(value, bytes_of(bytes));
        out.buf_append(bytes, width);
    }
    return width;
}

template <class T>
bool pop(Receive_buffer& in, T& value) {
    constexpr int width = sizeof(T);
    if (in.remaining < width) return false;
    const auto* const bytes = reinterpret_cast<const unsigned char*>(in.position);
    if constexpr (std::is_same_v<T, bool>)
        value = *bytes != 0;
    else
        value = Util::from_little_endian<T>(bytes);
    in.position += width;
    in.remaining -= width;
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

#define KAV_CODEC(T, name, NAME)                                                                                       \
    int Send_buffer::append_##NAME(T v) { return append(*this, v); }                                                   \
    bool Receive_buffer::pop_##NAME(T& v) { return pop(*this, v); }
KAV_BASE_TYPES(KAV_CODEC)
#undef KAV_CODEC

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
