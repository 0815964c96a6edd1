// SPDX-License-Identifier: MIT
#pragma once
#include "glue/jin/JIN_frame.h"
#include <cstring>
#include <string>
#include <vector>

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
