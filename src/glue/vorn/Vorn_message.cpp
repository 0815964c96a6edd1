// SPDX-License-Identifier: MIT
#include "glue/vorn/Vorn_message.h"
#include "glue/vorn/frame_characters.h"
#include "util/Debug_print.h"
#include <algorithm>
#include <cstring>

namespace {

uint8_t rotated(unsigned sum) { return static_cast<uint8_t>(sum << 2 | sum >> 6); }

} // namespace

Vorn_message::~Vorn_message() = default;

uint32_t Vorn_message::get_msg_len() const {
    if (size < header_size) return 0;
    const int length = Vorn_frame::hex_number(data + 2, 3);
    if (length < 0) {
        Debug_print::dprint("contains non-hex digit");
        return 0;
    }
    return static_cast<uint32_t>(length);
}

uint8_t Vorn_message::compute_8bit_checksum(uint32_t count) const {
    count = std::min(count, size);
    // Each byte is rotated by 2 bits for each byte behind it. Four such rotations change nothing, so bytes four places
    // apart are rotated alike, and their exclusive-or may be formed first. That is done for whole words, behind the
    // bytes that fill no word; then only the result is rotated, byte by byte.
    constexpr uint32_t word_size = 8;
    uint64_t words = 0;
    const unsigned char* p = data;
    uint8_t sum = 0;
    for (uint32_t odd = count % word_size; odd > 0; --odd) sum = rotated(sum) ^ *p++;
    for (uint32_t n = count / word_size; n > 0; --n, p += word_size) {
        uint64_t word;
        memcpy(&word, p, word_size);
        words ^= word;
    }
    unsigned char lanes[word_size];
    memcpy(lanes, &words, word_size);
    for (int i = 0; i < 4; ++i) sum = rotated(sum) ^ lanes[i] ^ lanes[i + 4];
    return rotated(sum);
}

bool Vorn_message::check_checksum() const {
    if (size < header_size) return false;
    const uint32_t length = get_msg_len();
    if (size < length + header_size || !Vorn_frame::is_line_end(data[size - 1])) return false;
    if (data[length + 4] == compute_8bit_checksum(length + 4)) return true;
    return data[size - 4] == '@' && Vorn_frame::hex_number(data + size - 3, 2) == compute_8bit_checksum(length + 3);
}

bool Vorn_message::set_checksum() {
    const uint32_t length = get_msg_len();
    if (size < length + header_size) return false;
    data[length + 4] = compute_8bit_checksum(length + 4);
    return true;
}

bool Vorn_message::validate(uint16_t id) const { return get_id() == id && check_checksum(); }

bool Vorn_message::setup(uint16_t id, uint32_t total_size) {
    if (total_size < header_size || total_size - header_size > max_body) return false;
    set_uint16_le(0, id);
    write_length(total_size - header_size, true);
    return true;
}

bool Vorn_message::reduce_size_to(uint32_t body_len) {
    if (body_len > max_body || body_len + header_size > size) return false;
    size = body_len + header_size;
    write_length(body_len, false);
    return true;
}

void Vorn_message::write_length(uint32_t body_len, bool upper_case) {
    const char* digits = upper_case ? "0123456789ABCDEF" : "0123456789abcdef";
    for (int i = 0; i < 3; ++i) data[2 + i] = static_cast<unsigned char>(digits[body_len >> 4 * (2 - i) & 15]);
}
