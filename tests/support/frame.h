// SPDX-License-Identifier: MIT
#pragma once
#include "support/capture.h"
#include <cstring>
#include <memory>

/// Builds a receiver frame byte by byte, without the library's help: identifier, three length digits, little-endian
/// fields, checksum.
class Frame {
public:
    explicit Frame(const char* id) : _id(id) {}

    template <class... T>
    Frame& u1(T... v) {
        return (add(static_cast<uint8_t>(v)), ...);
    }
    Frame& i1(int v) { return add(static_cast<int8_t>(v)); }
    Frame& u2(unsigned v) { return add(static_cast<uint16_t>(v)); }
    Frame& i2(int v) { return add(static_cast<int16_t>(v)); }
    Frame& u4(uint32_t v) { return add(v); }
    Frame& i4(int32_t v) { return add(v); }
    template <class... T>
    Frame& f4(T... v) {
        return (add(static_cast<float>(v)), ...);
    }
    Frame& f8(double v) { return add(v); }
    Frame& text(const std::string& s) { return _body += s, *this; }

    /// The frame with its checksum as the last byte of the body.
    std::string str() const {
        const std::string open = head(_body.size() + 1) + _body;
        unsigned sum = 0;
        for (const char c : open) sum = rotated(sum) ^ static_cast<unsigned char>(c);
        return open + static_cast<char>(rotated(sum));
    }
    /// The frame with a body of just what was added.
    std::string bare() const { return head(_body.size()) + _body; }

private:
    // Tests run on little-endian hosts.
    template <class T>
    Frame& add(T v) {
        return text(std::string(reinterpret_cast<const char*>(&v), sizeof v));
    }
    std::string head(size_t length) const { return _id + text_of("%03X", static_cast<unsigned>(length)); }
    static unsigned rotated(unsigned v) { return (v << 2 | v >> 6) & 0xFF; }

    std::string _id, _body;
};

/// The bytes of a text in a heap block of exactly its size, so that the sanitizer sees a read beyond it.
inline std::unique_ptr<unsigned char[]> exact_copy(const std::string& s) {
    auto block = std::make_unique<unsigned char[]>(s.size());
    std::memcpy(block.get(), s.data(), s.size());
    return block;
}
