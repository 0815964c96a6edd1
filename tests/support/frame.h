// SPDX-License-Identifier: MIT
#pragma once
#include "glue/jin/JIN_frame.h"
#include "glue/vorn/Binary_message.h"
#include "support/capture.h"
#include <cstring>

/// Builds a receiver frame byte by byte, without the library's help: identifier, three length digits, little-endian
/// fields (negative ones as what they are in so many bytes), checksum.
class Frame {
public:
    explicit Frame(const char* id) : _id(id) {}

    template <class... T>
    Frame& u1(T... v) {
        return (add(static_cast<uint8_t>(v)), ...);
    }
    Frame& u2(unsigned v) { return add(static_cast<uint16_t>(v)); }
    Frame& u4(uint32_t v) { return add(v); }
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

/// The frames of a message, without the library's help: one, or an announcement and its packets, 50 ms apart.
inline std::vector<JIN_frame> frames_of(uint32_t pgn, unsigned source, const std::string& bytes, int64_t us,
                                        unsigned destination = 255) {
    std::vector<JIN_frame> all;
    const auto frame = [&](uint32_t number, const std::string& data, unsigned priority) {
        const bool addressed = (number >> 8 & 0xFF) < 240;
        JIN_frame& f = all.emplace_back();
        f.us = us + 50000 * static_cast<int64_t>(all.size() - 1);
        f.identifier = priority << 26 | number << 8 | (addressed ? destination << 8 : 0) | source;
        f.size = static_cast<unsigned>(data.size());
        memcpy(f.bytes, data.data(), data.size());
    };
    const size_t size = bytes.size(), packets = (size + 6) / 7, kind = destination == 255 ? 32 : 16;
    if (size <= 8) return frame(pgn, bytes, 6), all;
    std::string announcement;
    for (size_t v : {kind, size, size >> 8, packets, size_t(0xFF), size_t(pgn), size_t(pgn >> 8), size_t(pgn >> 16)})
        announcement += static_cast<char>(v);
    frame(0xEC00, announcement, 7);
    for (size_t i = 0; i < packets; ++i) {
        const std::string part = static_cast<char>(i + 1) + bytes.substr(i * 7, 7);
        frame(0xEB00, part + std::string(8 - part.size(), '\xFF'), 7);
    }
    return all;
}

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
