// SPDX-License-Identifier: MIT
#include "glue/NV_store/NV_buffer_iterator.h"
#include <cstring>

namespace NV_store {

void NV_buffer_iterator::set_buffer(unsigned char* bytes, int n, int length) {
    buffer = bytes;
    capacity = n;
    read_position = 0;
    write_position = length;
}

int NV_buffer_iterator::set_mode(modes_t m) {
    mode = m;
    return 0;
}

bool NV_buffer_iterator::push_bytes(unsigned char* data, int n) {
    if (n < 0 || n > capacity - write_position) return false;
    memcpy(buffer + write_position, data, static_cast<size_t>(n));
    write_position += n;
    return true;
}

bool NV_buffer_iterator::peek_bytes(unsigned char* data, int n) {
    if (n < 0 || n > write_position - read_position) return false;
    memcpy(data, buffer + read_position, static_cast<size_t>(n));
    return true;
}

bool NV_buffer_iterator::pop_bytes(unsigned char* data, int n) {
    if (!peek_bytes(data, n)) return false;
    read_position += n;
    return true;
}

bool NV_buffer_iterator::get_free_space(unsigned int& used, unsigned int& total) const {
    used = static_cast<unsigned int>(write_position);
    total = static_cast<unsigned int>(capacity);
    return true;
}

} // namespace NV_store
