// SPDX-License-Identifier: MIT
#pragma once
#include "glue/vorn/Binary_message.h"
#include "support/capture.h"

/// Bytes as "FF 00 12".
inline std::string hex(const unsigned char* bytes, size_t n) {
    std::string text;
    for (; n > 0; --n) text += text_of(text.empty() ? "%02X" : " %02X", *bytes++);
    return text;
}
inline std::string hex(const Binary_message& m) { return hex(m.data, m.size); }

/// The bytes that such a text names.
struct Bytes {
    explicit Bytes(const std::string& text) {
        for (size_t i = 0; i + 1 < text.size(); i += 3)
            bytes.push_back(static_cast<unsigned char>(std::stoul(text.substr(i, 2), nullptr, 16)));
    }
    Binary_message view() { return {bytes.data(), static_cast<uint32_t>(bytes.size())}; }
    std::vector<unsigned char> bytes;
};
