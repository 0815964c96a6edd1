// SPDX-License-Identifier: MIT
#pragma once
#include "glue/jin/JIN_frame.h"
#include "glue/jin/JIN_message.h"
#include <cstring>
#include <string>
#include <vector>

/// The frames of a message, without the library's help: one, or an announcement and its packets, 50 ms apart.
inline std::vector<JIN_frame> frames_of(uint32_t pgn, unsigned source, const std::string& bytes, int64_t us,
                                        unsigned destination = 255) {
    std::vector<JIN_frame> all;
    const auto frame = [&](uint32_t number, const std::string& data, unsigned priority) {
        JIN_frame f;
        f.us = us;
        us += 50000;
        const bool addressed = (number >> 8 & 0xFF) < 240;
        f.identifier = priority << 26 | number << 8 | (addressed ? destination << 8 : 0) | source;
        f.size = static_cast<unsigned>(data.size());
        memcpy(f.bytes, data.data(), data.size());
        all.push_back(f);
    };
    if (bytes.size() <= 8) {
        frame(pgn, bytes, 6);
        return all;
    }
    const auto byte = [](size_t v) { return std::string(1, static_cast<char>(v)); };
    const size_t packets = (bytes.size() + 6) / 7;
    frame(0xEC00,
          byte(destination == 255 ? 32 : 16) + byte(bytes.size()) + byte(bytes.size() >> 8) + byte(packets) +
              byte(0xFF) + byte(pgn) + byte(pgn >> 8) + byte(pgn >> 16),
          7);
    for (size_t i = 0; i < packets; ++i) {
        std::string part = bytes.substr(i * 7, 7);
        part.resize(7, '\xFF');
        frame(0xEB00, byte(i + 1) + part, 7);
    }
    return all;
}
