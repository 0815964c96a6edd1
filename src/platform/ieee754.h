// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"

/// IEEE 754 numbers as little-endian bytes, whatever the processor's own order. `bytes` points to 4 or 8 of them, in
/// any alignment. Every bit pattern, NaNs included, goes through unchanged.
KAV_API void float_to_bytes_ieee754(float value, unsigned char* bytes);
KAV_API float bytes_to_float_ieee754(const unsigned char* bytes);
KAV_API void double_to_bytes_ieee754(double value, unsigned char* bytes);
KAV_API double bytes_to_double_ieee754(const unsigned char* bytes);
