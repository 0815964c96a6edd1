// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"
#include <cstdarg>
#include <cstddef>
#include <cstdint>

/// Number text that is the same on every machine. An application object of Qt sets the process's locale, after which
/// the C library prints and reads "1,5" for 1.5 in half of Europe; and `long` is 64 bits on a host, 32 on the board.
/// The functions below always use the C locale and the limits of the board. Any thread.
namespace Util {

/// snprintf in the C locale. Writes at most `size` bytes including the zero; returns the length the whole text has.
KAV_API int format(char* out, size_t size, const char* fmt, ...) KAV_PRINTF(3, 4);
KAV_API int vformat(char* out, size_t size, const char* fmt, va_list args) KAV_PRINTF(3, 0);

/// Reads a floating-point number as strtod does, in the C locale. `end` (may be null) receives the first character that
/// does not belong to the number, or `text` itself when there is none; the result is then 0.
KAV_API double to_double(const char* text, const char** end = nullptr);

/// Read an integer as strtol and strtoul do on a machine whose long has 32 bits: leading white space, a sign and, for
/// base 0, the prefixes "0" and "0x" are taken; what does not fit becomes the nearest limit (a negative number whose
/// magnitude is above 2^32-1 becomes 4294967295 in the unsigned form). `end` as above.
KAV_API int32_t to_long32(const char* text, int base = 10, const char** end = nullptr);
KAV_API uint32_t to_ulong32(const char* text, int base = 10, const char** end = nullptr);

} // namespace Util
