// SPDX-License-Identifier: MIT
#include "glue/jin/JIN_name.h"
#include "util/bytes.h"

JIN_name JIN_name::from_bytes(const unsigned char* bytes) {
    return JIN_name(Util::from_little_endian<uint64_t>(bytes));
}

void JIN_name::to_bytes(unsigned char* bytes) const { Util::to_little_endian(value, bytes); }

JIN_name& JIN_name::set(unsigned bit, unsigned n, uint64_t v) {
    const uint64_t ones = (uint64_t{1} << n) - 1;
    value = (value & ~(ones << bit)) | (v & ones) << bit;
    return *this;
}
