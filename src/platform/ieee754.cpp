// SPDX-License-Identifier: MIT
#include "platform/ieee754.h"
#include "util/bytes.h"

void float_to_bytes_ieee754(float value, unsigned char* bytes) { Util::to_little_endian(value, bytes); }
float bytes_to_float_ieee754(const unsigned char* bytes) { return Util::from_little_endian<float>(bytes); }
void double_to_bytes_ieee754(double value, unsigned char* bytes) { Util::to_little_endian(value, bytes); }
double bytes_to_double_ieee754(const unsigned char* bytes) { return Util::from_little_endian<double>(bytes); }
