// SPDX-License-Identifier: MIT
#include "glue/jin/JIN_name.h"

JIN_name JIN_name::from_bytes(const unsigned char* bytes) {
    JIN_name n;
    for (unsigned i = num_bytes; i-- > 0;) n.value = n.value << 8 | bytes[i];
    return n;
}

void JIN_name::to_bytes(unsigned char* bytes) const {
    for (unsigned i = 0; i < num_bytes; ++i) bytes[i] = static_cast<unsigned char>(value >> 8 * i);
}

JIN_name& JIN_name::set(unsigned bit, unsigned n, uint64_t v) {
    const uint64_t ones = (uint64_t{1} << n) - 1;
    value = (value & ~(ones << bit)) | (v & ones) << bit;
    return *this;
}
