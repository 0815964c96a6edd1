// SPDX-License-Identifier: MIT
#include "glue/vorn/Binary_message.h"
#include "util/Debug_base.h"
#include "util/Debug_print.h"
#include "util/assertion.h"
#include "util/bytes.h"
#include <algorithm>
#include <cstring>

namespace {

enum Order { little, big };

template <class T, Order order, unsigned width>
T load(const unsigned char* p) {
    return order == big ? Util::from_big_endian<T, width>(p) : Util::from_little_endian<T, width>(p);
}

template <class T, Order order, unsigned width = sizeof(T)>
T get(const Binary_message& m, uint32_t offset) {
    return m.holds(offset, width) ? load<T, order, width>(m.data + offset) : T(0);
}

/// True when the bytes are there; else says so. The numbers are known from field reports and must not change.
bool check(const Binary_message& m, uint32_t offset, uint32_t width, int number) {
    if (m.holds(offset, width)) return true;
    Debug_filter::print(_JDB::jdb_receiver, "Binary_message: index out of range %d\n", number);
    return false;
}

template <class T, Order order>
T get24(const Binary_message& m, uint32_t offset, int number) {
    return check(m, offset, 3, number) ? load<T, order, 3>(m.data + offset) : T(0);
}

template <Order order, class T, unsigned width = sizeof(T)>
void put(Binary_message& m, uint32_t offset, T value) {
    if (order == big)
        Util::to_big_endian<T, width>(value, m.data + offset);
    else
        Util::to_little_endian<T, width>(value, m.data + offset);
}

} // namespace

Binary_message::~Binary_message() = default;

int8_t Binary_message::get_int8(uint32_t offset) const { return get<int8_t, little>(*this, offset); }
uint8_t Binary_message::get_uint8(uint32_t offset) const { return get<uint8_t, little>(*this, offset); }

int16_t Binary_message::get_int16_le(uint32_t offset) const { return get<int16_t, little>(*this, offset); }
uint16_t Binary_message::get_uint16_le(uint32_t offset) const { return get<uint16_t, little>(*this, offset); }
int32_t Binary_message::get_int32_le(uint32_t offset) const { return get<int32_t, little>(*this, offset); }
uint32_t Binary_message::get_uint32_le(uint32_t offset) const { return get<uint32_t, little>(*this, offset); }
int64_t Binary_message::get_int64_le(uint32_t offset) const { return get<int64_t, little>(*this, offset); }
uint64_t Binary_message::get_uint64_le(uint32_t offset) const { return get<uint64_t, little>(*this, offset); }

int16_t Binary_message::get_int16_be(uint32_t offset) const { return get<int16_t, big>(*this, offset); }
uint16_t Binary_message::get_uint16_be(uint32_t offset) const { return get<uint16_t, big>(*this, offset); }
int32_t Binary_message::get_int32_be(uint32_t offset) const { return get<int32_t, big>(*this, offset); }
uint32_t Binary_message::get_uint32_be(uint32_t offset) const { return get<uint32_t, big>(*this, offset); }
int64_t Binary_message::get_int64_be(uint32_t offset) const { return get<int64_t, big>(*this, offset); }
uint64_t Binary_message::get_uint64_be(uint32_t offset) const { return get<uint64_t, big>(*this, offset); }

int32_t Binary_message::get_int24_le(uint32_t offset) const { return get24<int32_t, little>(*this, offset, 75); }
uint32_t Binary_message::get_uint24_le(uint32_t offset) const { return get24<uint32_t, little>(*this, offset, 124); }
int32_t Binary_message::get_int24_be(uint32_t offset) const { return get24<int32_t, big>(*this, offset, 568); }
uint32_t Binary_message::get_uint24_be(uint32_t offset) const { return get24<uint32_t, big>(*this, offset, 610); }

double Binary_message::get_double(uint32_t offset) const {
    return check(*this, offset, 8, 52) ? Util::from_little_endian<double>(data + offset) : 0.0;
}
float Binary_message::get_float(uint32_t offset) const {
    return check(*this, offset, 4, 42) ? Util::from_little_endian<float>(data + offset) : 0.0f;
}

void Binary_message::set_int8(uint32_t offset, int8_t value) { put<little>(*this, offset, value); }
void Binary_message::set_uint8(uint32_t offset, uint8_t value) { put<little>(*this, offset, value); }

void Binary_message::set_int16_le(uint32_t offset, int16_t value) { put<little>(*this, offset, value); }
void Binary_message::set_uint16_le(uint32_t offset, uint16_t value) { put<little>(*this, offset, value); }
void Binary_message::set_int24_le(uint32_t offset, int32_t value) { put<little, int32_t, 3>(*this, offset, value); }
void Binary_message::set_uint24_le(uint32_t offset, uint32_t value) { put<little, uint32_t, 3>(*this, offset, value); }
void Binary_message::set_int32_le(uint32_t offset, int32_t value) { put<little>(*this, offset, value); }
void Binary_message::set_uint32_le(uint32_t offset, uint32_t value) { put<little>(*this, offset, value); }
void Binary_message::set_int64_le(uint32_t offset, int64_t value) { put<little>(*this, offset, value); }
void Binary_message::set_uint64_le(uint32_t offset, uint64_t value) { put<little>(*this, offset, value); }

void Binary_message::set_int16_be(uint32_t offset, int16_t value) { put<big>(*this, offset, value); }
void Binary_message::set_uint16_be(uint32_t offset, uint16_t value) { put<big>(*this, offset, value); }
void Binary_message::set_int24_be(uint32_t offset, int32_t value) { put<big, int32_t, 3>(*this, offset, value); }
void Binary_message::set_uint24_be(uint32_t offset, uint32_t value) { put<big, uint32_t, 3>(*this, offset, value); }
void Binary_message::set_int32_be(uint32_t offset, int32_t value) { put<big>(*this, offset, value); }
void Binary_message::set_uint32_be(uint32_t offset, uint32_t value) { put<big>(*this, offset, value); }
void Binary_message::set_int64_be(uint32_t offset, int64_t value) { put<big>(*this, offset, value); }
void Binary_message::set_uint64_be(uint32_t offset, uint64_t value) { put<big>(*this, offset, value); }

void Binary_message::set_double(uint32_t offset, double value) { put<little>(*this, offset, value); }
void Binary_message::set_float(uint32_t offset, float value) { put<little>(*this, offset, value); }

const char* Binary_message::get_string(uint32_t offset, uint32_t maxlen) const {
    if (uint64_t(offset) + maxlen >= size) return "";
    const unsigned char* text = data + offset;
    return memchr(text, 0, size_t(maxlen) + 1) ? reinterpret_cast<const char*>(text) : "";
}

const char* Binary_message::get_partial_string(uint32_t offset) const {
    if (offset > size) return nullptr;
    if (offset == size) return "";
    const unsigned char* text = data + offset;
    return memchr(text, 0, size - offset) ? reinterpret_cast<const char*>(text) : "";
}

void Binary_message::set_string(uint32_t offset, const char* text, uint32_t len) {
    if (uint64_t(offset) + len >= size) return;
    char* place = reinterpret_cast<char*>(data + offset);
    strncpy(place, text, len);
    place[len] = 0;
}

unsigned char* Binary_message::get_bytes(uint32_t offset, uint32_t count) const {
    return holds(offset, count) ? data + offset : nullptr;
}

bool Binary_message::get_bytes(uint32_t offset, void* dst, uint32_t count) const {
    if (!holds(offset, count)) return false;
    if (count > 0) memcpy(dst, data + offset, count);
    return true;
}

void Binary_message::set_bytes(uint32_t offset, int value, uint32_t count) {
    if (count > 0) memset(data + offset, value, count);
}

void Binary_message::set_bytes(uint32_t offset, const void* src, uint32_t count) {
    if (count > 0) memcpy(data + offset, src, count);
}

bool Binary_message::get_data(void* dst, uint32_t count) const { return get_bytes(0, dst, count); }

bool Binary_message::get_bit_msb(uint32_t offset, uint32_t bit) const {
    return bit < 8 && (get_uint8(offset) >> bit & 1) != 0;
}

void Binary_message::set_bit_msb(uint32_t offset, bool value, uint32_t bit) {
    if (bit > 7) return;
    const unsigned mask = 1u << bit;
    data[offset] = static_cast<unsigned char>(value ? data[offset] | mask : data[offset] & ~mask);
}

Binary_message::Mask::Mask(uint32_t first_bit, uint32_t nbits, bool msb_first) {
    const uint64_t span = (uint64_t(first_bit) + nbits + 7) / 8;
    if (span > sizeof bytes) Util::flush_and_abort();
    nbytes = static_cast<uint32_t>(span);
    shift = msb_first ? nbytes * 8 - first_bit - nbits : first_bit;
    // 64 bits, because a shift by 32 is undefined in 32.
    auto placed = static_cast<uint32_t>(((uint64_t(1) << nbits) - 1) << shift);
    if (!msb_first) placed = swap_byte_order(placed, nbytes * 8);
    for (uint32_t i = 0; i < nbytes; ++i) bytes[i] = static_cast<unsigned char>(placed >> 8 * (nbytes - 1 - i));
}

uint32_t Binary_message::get_bits_lsb(uint32_t offset, uint32_t first_bit, uint32_t nbits) const {
    const Mask mask(first_bit, nbits, false);
    return static_cast<uint32_t>(uint64_t(swap_byte_order(get_bits(offset, mask), mask.nbytes * 8)) >> mask.shift);
}

uint32_t Binary_message::get_bits_msb(uint32_t offset, uint32_t first_bit, uint32_t nbits) const {
    const Mask mask(first_bit, nbits, true);
    return static_cast<uint32_t>(uint64_t(get_bits(offset, mask)) >> mask.shift);
}

void Binary_message::set_bits_lsb(uint32_t offset, uint32_t first_bit, uint32_t nbits, uint32_t value) {
    const Mask mask(first_bit, nbits, false);
    const auto placed = static_cast<uint32_t>(uint64_t(value) << mask.shift);
    set_bits(offset, swap_byte_order(placed, mask.nbytes * 8), mask);
}

void Binary_message::set_bits_msb(uint32_t offset, uint32_t first_bit, uint32_t nbits, uint32_t value) {
    const Mask mask(first_bit, nbits, true);
    set_bits(offset, static_cast<uint32_t>(uint64_t(value) << mask.shift), mask);
}

uint32_t Binary_message::get_bits(uint32_t offset, const Mask& mask) const {
    uint32_t value = 0;
    for (uint32_t i = 0; i < mask.nbytes; ++i) {
        const unsigned char byte = holds(offset, i + 1) ? data[offset + i] : static_cast<unsigned char>(0);
        value = value << 8 | (byte & mask.bytes[i]);
    }
    return value;
}

void Binary_message::set_bits(uint32_t offset, uint32_t value, const Mask& mask) {
    for (uint32_t i = 0; i < mask.nbytes; ++i) {
        if (mask.bytes[i] == 0) continue;
        const uint32_t wanted = value >> 8 * (mask.nbytes - 1 - i);
        unsigned char& byte = data[offset + i];
        byte = static_cast<unsigned char>((byte & ~mask.bytes[i]) | (wanted & mask.bytes[i]));
    }
}

uint32_t Binary_message::swap_byte_order(uint32_t value, uint32_t nbits) {
    const uint32_t n = static_cast<uint32_t>(std::min<uint64_t>((uint64_t(nbits) + 7) / 8, 4));
    uint32_t swapped = 0;
    for (uint32_t i = 0; i < n; ++i, value >>= 8) swapped = swapped << 8 | (value & 0xFF);
    return swapped;
}

uint32_t Binary_message::swap_bit_order(uint32_t value, uint32_t nbits) {
    uint32_t swapped = 0;
    for (uint32_t i = 0; i < std::min(nbits, 32u); ++i, value >>= 1) swapped = swapped << 1 | (value & 1);
    return swapped;
}

void Binary_message::print() const {
    for (uint32_t i = 0; i < size; ++i) Debug_print::dprint("%u: %.2x\n", unsigned(i), unsigned(data[i]));
}
