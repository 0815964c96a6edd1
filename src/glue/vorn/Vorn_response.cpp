// SPDX-License-Identifier: MIT
#include "glue/vorn/Vorn_response.h"
#include <algorithm>
#include <cstring>

namespace {

// As the C locale has it: the receiver's characters do not depend on the country.
bool is_space(unsigned char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
bool is_space_or_control(unsigned char c) { return c <= ' ' || c == 0x7F; }

} // namespace

Vorn_response::~Vorn_response() = default;

bool Vorn_response::get_response_status() const { return get_id() == ('R' | 'E' << 8); }

const char* Vorn_response::get_response_string() const {
    const uint32_t length = get_msg_len();
    return length == 0 ? "" : get_string(header_size, length + 3);
}

bool Vorn_response::check_response_string(const char* expected) const {
    return strncmp(get_response_string(), expected, strlen(expected)) == 0;
}

bool Vorn_response::set_msg_len(uint32_t body_len) {
    if (body_len > max_body) return false;
    write_length(body_len, false);
    return true;
}

const char* Vorn_response::strip_identifier(int& len) {
    len = 0;
    // A view of a whole buffer has old bytes behind the zero.
    unsigned char* end = std::find(data, data + size, 0);
    unsigned char* opening = std::find(data, end, '%');
    if (opening == end) return nullptr;
    unsigned char* text = std::find(opening + 1, end, '%');
    if (text == end) return nullptr;
    ++text;
    while (text < end && is_space(*text)) ++text;
    while (end > text && is_space_or_control(end[-1])) --end;
    if (text == end) return nullptr;
    size -= static_cast<uint32_t>(text - data);
    data = text;
    len = static_cast<int>(end - text);
    return reinterpret_cast<const char*>(text);
}
