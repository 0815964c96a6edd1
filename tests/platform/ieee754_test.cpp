// SPDX-License-Identifier: MIT
#include "platform/ieee754.h"
#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <limits>

namespace {

TEST(ieee754, numbers_are_little_endian_bytes_both_ways) {
    static const struct {
        double value;
        unsigned char as_float[4], as_double[8];
    } rows[] = {
        {0.0, {0, 0, 0, 0}, {0, 0, 0, 0, 0, 0, 0, 0}},
        {-0.0, {0, 0, 0, 0x80}, {0, 0, 0, 0, 0, 0, 0, 0x80}},
        {1.0, {0, 0, 0x80, 0x3F}, {0, 0, 0, 0, 0, 0, 0xF0, 0x3F}},
        {-118.625, {0, 0x40, 0xED, 0xC2}, {0, 0, 0, 0, 0, 0xA8, 0x5D, 0xC0}},
        {std::numeric_limits<double>::infinity(), {0, 0, 0x80, 0x7F}, {0, 0, 0, 0, 0, 0, 0xF0, 0x7F}},
    };
    for (const auto& r : rows) {
        unsigned char raw[9]; // written and read at an odd address
        float_to_bytes_ieee754(static_cast<float>(r.value), raw + 1);
        EXPECT_EQ(memcmp(raw + 1, r.as_float, 4), 0) << r.value;
        EXPECT_EQ(bytes_to_float_ieee754(raw + 1), static_cast<float>(r.value));
        double_to_bytes_ieee754(r.value, raw + 1);
        EXPECT_EQ(memcmp(raw + 1, r.as_double, 8), 0) << r.value;
        EXPECT_EQ(bytes_to_double_ieee754(raw + 1), r.value);
    }
    const unsigned char all_different[] = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x48};
    const unsigned char nan[] = {0x5A, 0, 0, 0, 0, 0xA5, 0xFF, 0xFF};
    unsigned char back[8];
    for (const unsigned char* bytes : {all_different, nan}) {
        double_to_bytes_ieee754(bytes_to_double_ieee754(bytes), back);
        EXPECT_EQ(memcmp(back, bytes, 8), 0);
        float_to_bytes_ieee754(bytes_to_float_ieee754(bytes + 4), back);
        EXPECT_EQ(memcmp(back, bytes + 4, 4), 0);
    }
}

} // namespace
