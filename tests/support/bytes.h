// SPDX-License-Identifier: MIT
#pragma once
#include "glue/vorn/Binary_message.h"
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

/// Bytes as "FF 00 12".
inline std::string hex(const unsigned char* bytes, size_t n) {
    std::string text;
    char digits[4];
    for (size_t i = 0; i < n; ++i) {
        std::snprintf(digits, sizeof digits, i ? " %02X" : "%02X", static_cast<unsigned>(bytes[i]));
        text += digits;
    }
    return text;
}
inline std::string hex(const Binary_message& m) { return hex(m.data, m.size); }

/// The bytes that such a text names.
class Bytes {
public:
    explicit Bytes(const std::string& text) {
        for (size_t i = 0; i + 1 < text.size(); i += 3)
            _bytes.push_back(static_cast<unsigned char>(std::strtoul(text.substr(i, 2).c_str(), nullptr, 16)));
    }
    Binary_message view() { return {_bytes.data(), static_cast<uint32_t>(_bytes.size())}; }

private:
    std::vector<unsigned char> _bytes;
};
