// SPDX-License-Identifier: MIT
#include "platform/ieee754.h"
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
    const unsigned char nan[] = {0x5A, 1, 2, 3, 4, 0xA5, 0xFF, 0xFF};
    unsigned char back[8];
    double_to_bytes_ieee754(bytes_to_double_ieee754(nan), back);
    EXPECT_EQ(memcmp(back, nan, 8), 0) << "every bit goes through";
}

} // namespace
