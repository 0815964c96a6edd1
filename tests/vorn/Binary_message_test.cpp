// SPDX-License-Identifier: MIT
#include "glue/vorn/Binary_message.h"
#include "support/capture.h"
#include "support/child.h"
#include "util/Debug_base.h"
#include <algorithm>
#include <csignal>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <random>
#include <vector>

namespace {

/// A view of a heap block of exactly its size, so that the address sanitizer sees any byte too many.
struct Exact {
    explicit Exact(std::vector<unsigned char> content) : bytes(std::move(content)), view(bytes.data(), size()) {
        bytes.shrink_to_fit();
    }
    uint32_t size() const { return static_cast<uint32_t>(bytes.size()); }
    std::vector<unsigned char> bytes;
    Binary_message view;
};

std::vector<unsigned char> random_bytes(std::mt19937& random, size_t n) {
    std::vector<unsigned char> bytes(n);
    for (auto& b : bytes) b = static_cast<unsigned char>(random());
    return bytes;
}

struct Integer_access {
    const char* name;
    unsigned width;
    bool big, extends_sign;
    uint64_t (*get)(const Binary_message&, uint32_t);
    void (*set)(Binary_message&, uint32_t, uint64_t);
};

#define ACCESS(type, name, width, big, extends_sign)                                                                   \
    {                                                                                                                  \
#name, width, big, extends_sign,                                                                               \
            [](const Binary_message& m, uint32_t o) { return static_cast<uint64_t>(m.get_##name(o)); },                \
            [](Binary_message& m, uint32_t o, uint64_t v) { m.set_##name(o, static_cast<type>(v)); }       \
    }

const Integer_access integers[] = {
    ACCESS(int8_t, int8, 1, false, true),         ACCESS(uint8_t, uint8, 1, false, false),
    ACCESS(int16_t, int16_le, 2, false, true),    ACCESS(int16_t, int16_be, 2, true, true),
    ACCESS(uint16_t, uint16_le, 2, false, false), ACCESS(uint16_t, uint16_be, 2, true, false),
    ACCESS(int32_t, int24_le, 3, false, false),   ACCESS(int32_t, int24_be, 3, true, false),
    ACCESS(uint32_t, uint24_le, 3, false, false), ACCESS(uint32_t, uint24_be, 3, true, false),
    ACCESS(int32_t, int32_le, 4, false, true),    ACCESS(int32_t, int32_be, 4, true, true),
    ACCESS(uint32_t, uint32_le, 4, false, false), ACCESS(uint32_t, uint32_be, 4, true, false),
    ACCESS(int64_t, int64_le, 8, false, true),    ACCESS(int64_t, int64_be, 8, true, true),
    ACCESS(uint64_t, uint64_le, 8, false, false), ACCESS(uint64_t, uint64_be, 8, true, false),
};

/// What a getter must return, put together byte by byte; 0 when one of the bytes is not in the view.
uint64_t expected(const std::vector<unsigned char>& bytes, uint64_t offset, const Integer_access& a) {
    if (offset + a.width > bytes.size()) return 0;
    uint64_t value = 0;
    for (unsigned i = 0; i < a.width; ++i) {
        value += uint64_t(bytes[offset + i]) << 8 * (a.big ? a.width - 1 - i : i);
    }
    const uint64_t sign = uint64_t(1) << (8 * a.width - 1);
    return a.extends_sign && (value & sign) ? value - 2 * sign : value;
}

TEST(Binary_message, integers_are_read_as_their_bytes_say_and_as_0_outside_and_written_back_the_same) {
    std::mt19937 random(1);
    for (int round = 0; round < 200; ++round) {
        const Exact m(random_bytes(random, random() % 24));
        std::vector<uint32_t> offsets{0xFFFFFFF0, 0xFFFFFFFF, 0x80000000, 0xFFFFFFFF - m.size() + 1};
        for (uint32_t o = 0; o < m.size() + 9; ++o) offsets.push_back(o);
        for (const auto& a : integers) {
            for (const uint32_t o : offsets) {
                const uint64_t value = a.get(m.view, o);
                ASSERT_EQ(value, expected(m.bytes, o, a)) << a.name << " at " << o << " of " << m.size();
                if (!m.view.holds(o, a.width)) continue;
                std::vector<unsigned char> written(m.size() + 1, 0x5A), wanted = written;
                std::copy_n(m.bytes.begin() + o, a.width, wanted.begin() + o);
                Binary_message too_small(written.data(), 0); // setters do not look at the size
                a.set(too_small, o, value);
                ASSERT_EQ(written, wanted) << a.name << " at " << o;
            }
        }
    }
}

TEST(Binary_message, floating_point_fields_are_little_endian) {
    Exact m(std::vector<unsigned char>(13));
    m.view.set_double(1, -118.625);
    m.view.set_float(9, 1.5f);
    EXPECT_EQ(m.bytes, (std::vector<unsigned char>{0, 0, 0, 0, 0, 0, 0xA8, 0x5D, 0xC0, 0, 0, 0xC0, 0x3F}));
    EXPECT_EQ(m.view.get_double(1), -118.625);
    EXPECT_EQ(m.view.get_float(9), 1.5f);
    const Exact nan({0x5A, 1, 2, 3, 4, 0xA5, 0xFF, 0xFF});
    m.view.set_double(0, nan.view.get_double(0));
    EXPECT_EQ(memcmp(m.bytes.data(), nan.bytes.data(), 8), 0) << "every bit goes through";
}

TEST(Binary_message, six_getters_report_a_field_outside_when_the_category_is_on) {
    const Exact m(std::vector<unsigned char>(10, 0xFF));
    const struct {
        int number;
        uint32_t first_bad;
        std::function<double(uint32_t)> get;
    } rows[] = {{52, 3, [&](uint32_t o) { return m.view.get_double(o); }},
                {42, 7, [&](uint32_t o) { return m.view.get_float(o); }},
                {75, 8, [&](uint32_t o) { return m.view.get_int24_le(o); }},
                {124, 8, [&](uint32_t o) { return m.view.get_uint24_le(o); }},
                {568, 8, [&](uint32_t o) { return m.view.get_int24_be(o); }},
                {610, 8, [&](uint32_t o) { return m.view.get_uint24_be(o); }}};
    for (const auto& r : rows) {
        Capture err(stderr);
        EXPECT_EQ(r.get(r.first_bad), 0); // the category is off
        Debug_filter::add_filter(_JDB::jdb_receiver);
        EXPECT_NE(r.get(r.first_bad - 1), 0); // all ones: not a number, or a large one
        EXPECT_EQ(r.get(r.first_bad), 0);
        EXPECT_EQ(m.view.get_uint32_le(8), 0u); // a silent one
        Debug_filter::remove_filter(_JDB::jdb_receiver);
        EXPECT_EQ(err.text(), "Binary_message: index out of range " + std::to_string(r.number) + "\n");
    }
}

TEST(Binary_message, strings_are_taken_with_their_zero_inside_and_written_where_they_have_room) {
    const Exact m({'a', 'b', 'c', 0, 'd', 'e'});
    static const struct {
        uint32_t offset, maxlen;
        const char *string, *partial;
    } rows[] = {{0, 3, "abc", "abc"}, {0, 2, "", "abc"},   {1, 5, "", "bc"},
                {4, 1, "", ""},       {7, 0, "", nullptr}, {0xFFFFFFFF, 2, "", nullptr}};
    for (const auto& r : rows) {
        EXPECT_STREQ(m.view.get_string(r.offset, r.maxlen), r.string) << r.offset << ' ' << r.maxlen;
        EXPECT_STREQ(m.view.get_partial_string(r.offset), r.partial) << r.offset;
    }
    static const struct {
        uint32_t offset;
        const char *text, *after;
    } writes[] = {{1, "xy", "-xy\0\0-"}, {1, "wxyz", "-wxy\0-"}, {3, "xy", "------"}, {0xFFFFFFFF, "xy", "------"}};
    for (const auto& w : writes) {
        Exact target(std::vector<unsigned char>(6, '-'));
        target.view.set_string(w.offset, w.text, 3);
        EXPECT_EQ(memcmp(target.bytes.data(), w.after, 6), 0) << w.offset << ' ' << w.text;
    }
}

TEST(Binary_message, blocks_of_bytes_are_copied_whole_or_not_at_all) {
    Exact m({1, 2, 3, 4, 5});
    static const struct {
        uint32_t offset, count;
        bool inside;
    } rows[] = {{2, 3, true}, {2, 4, false}, {5, 0, true}, {6, 0, false}, {0xFFFFFFFF, 2, false}};
    for (const auto& r : rows) {
        unsigned char copy[5] = {9, 9, 9, 9, 9};
        EXPECT_EQ(m.view.get_bytes(r.offset, r.count), r.inside ? m.bytes.data() + r.offset : nullptr);
        EXPECT_EQ(m.view.get_bytes(r.offset, copy, r.count), r.inside);
        EXPECT_EQ(copy[0], r.inside && r.count > 0 ? r.offset + 1 : 9) << r.offset << ' ' << r.count;
    }
    m.view.set_bytes(0, 0, 2);
    m.view.set_bytes(3, "\7\x8", 2);
    m.view.set_bit_msb(2, true, 7); // counted from the least significant
    m.view.set_bit_msb(2, true, 8);
    EXPECT_EQ(m.bytes, (std::vector<unsigned char>{0, 0, 0x83, 7, 8}));
    EXPECT_TRUE(m.view.get_bit_msb(2, 0) && !m.view.get_bit_msb(2, 2) && !m.view.get_bit_msb(5, 0));
}

/// Bit `i` of the bytes, counted from the first byte's top bit or bottom bit.
bool bit_at(const std::vector<unsigned char>& bytes, size_t i, bool msb) {
    return i / 8 < bytes.size() && (bytes[i / 8] >> (msb ? 7 - i % 8 : i % 8) & 1) != 0;
}

TEST(Binary_message, bit_fields_are_read_and_written_bit_by_bit_and_leave_their_neighbours) {
    std::mt19937 random(3);
    for (int round = 0; round < 4000; ++round) {
        Exact m(random_bytes(random, 8));
        const auto before = m.bytes;
        const bool msb = round % 2 != 0;
        const uint32_t first = random() % 33, n = random() % (33 - first), offset = random() % 8;
        uint32_t wanted = 0;
        for (uint32_t i = 0; i < n; ++i) {
            const uint32_t bit = bit_at(before, offset * 8 + first + i, msb);
            wanted |= bit << (msb ? n - 1 - i : i);
        }
        const auto get = msb ? &Binary_message::get_bits_msb : &Binary_message::get_bits_lsb;
        ASSERT_EQ((m.view.*get)(offset, first, n), wanted) << offset << ' ' << first << ' ' << n << ' ' << msb;
        if (offset > 4) continue; // would write outside

        const uint32_t value = random();
        msb ? m.view.set_bits_msb(offset, first, n, value) : m.view.set_bits_lsb(offset, first, n, value);
        const uint32_t kept = n == 32 ? value : value & ((1u << n) - 1);
        ASSERT_EQ((m.view.*get)(offset, first, n), kept) << offset << ' ' << first << ' ' << n << ' ' << msb;
        for (size_t i = 0; i < 64; ++i) {
            if (i >= offset * 8 + first && i < offset * 8 + first + n) continue;
            ASSERT_EQ(bit_at(m.bytes, i, msb), bit_at(before, i, msb)) << "neighbour " << i;
        }
    }
}

TEST(Binary_message, a_mask_lies_in_message_order_within_four_bytes) {
    const Binary_message::Mask msb(6, 4, true), lsb(6, 4, false), aligned(8, 8, true);
    EXPECT_TRUE(memcmp(msb.bytes, "\x03\xC0\0", 4) == 0 && msb.shift == 6);
    EXPECT_TRUE(memcmp(lsb.bytes, "\xC0\x03\0", 4) == 0 && lsb.shift == 6);
    EXPECT_TRUE(memcmp(aligned.bytes, "\0\xFF\0", 4) == 0 && aligned.shift == 0);
    const Exact m({0x12, 0x34, 0x56, 0x78});
    EXPECT_EQ(m.view.get_bits(0, msb), 0x200u); // not shifted down
    EXPECT_EQ(m.view.get_bits(0xFFFFFFFF, msb), 0u);
    for (const auto& [first, n] : {std::pair{1u, 32u}, {33u, 0u}, {0xFFFFFFFFu, 1u}}) {
        const Child_result r = run_child([first = first, n = n] { Binary_message::Mask(first, n, true); });
        EXPECT_EQ(r.signal, SIGABRT) << first << ' ' << n;
    }
}

TEST(Binary_message, orders_are_swapped_within_the_bits_that_are_asked_for) {
    EXPECT_EQ(Binary_message::swap_byte_order(0x12345678, 17), 0x785634u);
    EXPECT_EQ(Binary_message::swap_bit_order(0x12345678, 17), 0x3CD4u);
    EXPECT_EQ(Binary_message::swap_byte_order(0x12345678, 0xFFFFFFFF), 0x78563412u);
    EXPECT_EQ(Binary_message::swap_bit_order(0x12345678, 0), 0u);
}

} // namespace
