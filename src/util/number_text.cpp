// SPDX-License-Identifier: MIT
#include "util/number_text.h"
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <limits>

namespace Util {

/// Made on first use and never freed: late threads and destructors of static objects format too.
static locale_t c_locale() {
    static const locale_t locale = newlocale(LC_ALL_MASK, "C", nullptr);
    return locale;
}

int format(char* out, size_t size, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    const int length = vformat(out, size, fmt, args);
    va_end(args);
    return length;
}

int vformat(char* out, size_t size, const char* fmt, va_list args) {
    const locale_t before = uselocale(c_locale());
    const int length = vsnprintf(out, size, fmt, args);
    uselocale(before);
    return length;
}

double to_double(const char* text, const char** end) {
    char* stop;
    const double value = strtod_l(text, &stop, c_locale());
    if (end) *end = stop;
    return value;
}

int32_t to_long32(const char* text, int base, const char** end) {
    using Limits = std::numeric_limits<int32_t>;
    char* stop = const_cast<char*>(text);
    const long long value = strtoll(text, &stop, base);
    if (end) *end = stop;
    if (value < Limits::min()) return Limits::min();
    if (value > Limits::max()) return Limits::max();
    return static_cast<int32_t>(value);
}

uint32_t to_ulong32(const char* text, int base, const char** end) {
    constexpr long long limit = std::numeric_limits<uint32_t>::max();
    char* stop = const_cast<char*>(text);
    const long long value = strtoll(text, &stop, base);
    if (end) *end = stop;
    // A negative number stands for its value modulo 2^32, unless its magnitude alone is too large.
    if (value < -limit || value > limit) return static_cast<uint32_t>(limit);
    return static_cast<uint32_t>(value);
}

} // namespace Util
