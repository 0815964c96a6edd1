// SPDX-License-Identifier: MIT
#pragma once

/// The characters that frames are told apart by. None of these asks the locale or says anything.
namespace Vorn_frame {

inline bool is_line_end(unsigned char c) { return c == '\r' || c == '\n'; }

/// 0..15, -1 for any other character.
inline int hex_value(unsigned char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

/// The number of `n` hexadecimal digits, -1 when one of them is none.
inline int hex_number(const unsigned char* digits, int n) {
    int value = 0;
    for (int i = 0; i < n; ++i) {
        const int digit = hex_value(digits[i]);
        if (digit < 0) return -1;
        value = value * 16 + digit;
    }
    return value;
}

} // namespace Vorn_frame
