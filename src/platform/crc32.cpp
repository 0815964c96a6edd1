// SPDX-License-Identifier: MIT
#include "platform/crc32.h"
#include <cstdint>
#include <libdeflate.h>

unsigned long Util::crc32(unsigned long crc, void const* data, int len) {
    if (len < 1) return static_cast<uint32_t>(crc);
    return libdeflate_crc32(static_cast<uint32_t>(crc), data, static_cast<size_t>(len));
}
