// SPDX-License-Identifier: MIT
#include "glue/jin/JIN_grow_message.h"
#include <cstdlib>
#include <cstring>

JIN_grow_message::JIN_grow_message(uint32_t number, uint32_t room) : JIN_message(number, nullptr, 0) { reserve(room); }

JIN_grow_message::JIN_grow_message(const JIN_grow_message& o) : JIN_message(o.pgn, nullptr, 0) { *this = o; }

JIN_grow_message& JIN_grow_message::operator=(const JIN_grow_message& o) {
    if (this == &o) return *this;
    pgn = o.pgn;
    source = o.source;
    destination = o.destination;
    priority = o.priority;
    clear();
    append(o.data, o.size);
    return *this;
}

JIN_grow_message::~JIN_grow_message() { free(data); }

bool JIN_grow_message::reserve(uint32_t n) {
    if (n <= _room) return true;
    if (n > JIN::max_length) return false;
    void* const grown = realloc(data, n);
    if (!grown) return false;
    data = static_cast<unsigned char*>(grown);
    _room = n;
    return true;
}

bool JIN_grow_message::resize(uint32_t n) {
    if (!reserve(n)) return false;
    if (n > size) memset(data + size, 0xFF, n - size);
    size = n;
    return true;
}

bool JIN_grow_message::append(const void* bytes, uint32_t n) {
    if (n == 0) return true;
    const uint32_t end = size;
    if (n > JIN::max_length || !resize(end + n)) return false;
    memcpy(data + end, bytes, n);
    return true;
}

bool JIN_grow_message::append_uint16_le(uint16_t v) {
    if (!resize(size + 2)) return false;
    set_uint16_le(size - 2, v);
    return true;
}

bool JIN_grow_message::append_uint32_le(uint32_t v) {
    if (!resize(size + 4)) return false;
    set_uint32_le(size - 4, v);
    return true;
}
