// SPDX-License-Identifier: MIT
#pragma once
#include <cstdint>
#include <string>

/// Builds stored records byte by byte, without the library's help.
namespace Image {

inline std::string bytes(std::initializer_list<int> list) {
    std::string all;
    for (const int b : list) all += static_cast<char>(b);
    return all;
}

inline std::string little_endian(uint64_t value, int size) {
    std::string all;
    for (; size > 0; --size, value >>= 8) all += static_cast<char>(value & 0xFF);
    return all;
}

inline uint32_t crc(const std::string& data) {
    uint32_t sum = ~0u;
    for (const char c : "ZEW6" + data) {
        sum ^= static_cast<unsigned char>(c);
        for (int bit = 0; bit < 8; ++bit) sum = sum >> 1 ^ (sum & 1 ? 0xEDB88320u : 0);
    }
    return ~sum;
}

inline std::string header(int type, int marker, int id) {
    return bytes({type, marker}) + little_endian(static_cast<uint64_t>(id), 2);
}

inline std::string value(int type, int id, const std::string& data) { return header(type, 9, id) + data; }

inline std::string frame(int type, int id, const std::string& records) {
    const std::string open = header(type, 1, id) + records + header(type, 2, id);
    return open + little_endian(crc(open), 4);
}

inline std::string hex(const std::string& data) {
    std::string text;
    for (const char c : data)
        for (const int nibble : {c >> 4 & 15, c & 15}) text += "0123456789ABCDEF"[nibble];
    return text;
}

} // namespace Image
