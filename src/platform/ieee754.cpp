// SPDX-License-Identifier: MIT
#include "platform/ieee754.h"
#include <cstdint>
#include <cstring>

namespace {

/// `Bits` is the unsigned type of the number's size.
template <class Bits, class Number>
void to_bytes(Number value, unsigned char* bytes) {
    static_assert(sizeof(Bits) == sizeof(Number), "the whole number is taken");
    Bits bits;
    memcpy(&bits, &value, sizeof bits);
    for (unsigned i = 0; i < sizeof bits; ++i) bytes[i] = static_cast<unsigned char>(bits >> 8 * i);
}

template <class Bits, class Number>
Number from_bytes(const unsigned char* bytes) {
    static_assert(sizeof(Bits) == sizeof(Number), "the whole number is given");
    Bits bits = 0;
    for (unsigned i = 0; i < sizeof bits; ++i) bits |= static_cast<Bits>(bytes[i]) << 8 * i;
    Number value;
    memcpy(&value, &bits, sizeof value);
    return value;
}

} // namespace

void float_to_bytes_ieee754(float value, unsigned char* bytes) { to_bytes<uint32_t>(value, bytes); }
float bytes_to_float_ieee754(const unsigned char* bytes) { return from_bytes<uint32_t, float>(bytes); }
void double_to_bytes_ieee754(double value, unsigned char* bytes) { to_bytes<uint64_t>(value, bytes); }
double bytes_to_double_ieee754(const unsigned char* bytes) { return from_bytes<uint64_t, double>(bytes); }
