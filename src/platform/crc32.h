// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"

namespace Util {

/// The common CRC-32 (reflected polynomial 0xEDB88320, inverted at both ends), chained: feeding data in pieces, each
/// time with the value so far, gives the same as feeding it whole. Start from 0, or from another value as a seed. The
/// result is 32 bits wide on every host. `len` below 1 changes nothing.
KAV_API unsigned long crc32(unsigned long crc, void const* data, int len);

} // namespace Util
