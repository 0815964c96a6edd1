// SPDX-License-Identifier: MIT
#pragma once
#include "platform/crc32.h"
#include <cstdint>
#include <string>

/// Builds stored records byte by byte.
namespace Image {

inline std::string bytes(std::initializer_list<int> list) {
    std::string all;
    for (const int b : list) all += static_cast<char>(b);
    return all;
}

inline std::string little_endian(uint64_t value, int size) {
    return std::string(reinterpret_cast<const char*>(&value), static_cast<size_t>(size)); // hosts of tests are that
}

inline uint32_t crc(const std::string& data) {
    const std::string all = "ZEW6" + data;
    return static_cast<uint32_t>(Util::crc32(0, all.data(), static_cast<int>(all.size())));
}

inline std::string header(int type, int marker, int id) {
    return bytes({type, marker}) + little_endian(static_cast<uint64_t>(id), 2);
}

inline std::string value(int type, int id, const std::string& data) { return header(type, 9, id) + data; }

inline std::string frame(int type, int id, const std::string& records) {
    const std::string open = header(type, 1, id) + records + header(type, 2, id);
    return open + little_endian(crc(open), 4);
}

} // namespace Image
