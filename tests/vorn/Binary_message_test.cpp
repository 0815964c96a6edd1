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
}

TEST(Binary_message, six_getters_report_a_field_outside_when_the_category_is_on) {
    const Exact m(std::vector<unsigned char>(10, 0xFF));
    const struct {
        int number;
        uint32_t first_bad;
        std::function<double(uint32_t)> get;
    } rows[] = {
        {52, 3, [&](uint32_t o) { return m.view.get_double(o); }},
        {42, 7, [&](uint32_t o) { return m.view.get_float(o); }},
        {75, 8, [&](uint32_t o) { return m.view.get_int24_le(o); }},
        {124, 8, [&](uint32_t o) { return m.view.get_uint24_le(o); }},
        {568, 8, [&](uint32_t o) { return m.view.get_int24_be(o); }},
        {610, 8, [&](uint32_t o) { return m.view.get_uint24_be(o); }},
    };
    for (const auto& r : rows) {
        for (const bool on : {false, true}) {
            if (on) Debug_filter::add_filter(_JDB::jdb_receiver);
            Capture err(stderr);
            EXPECT_NE(r.get(r.first_bad - 1), 0); // all ones: not a number, or a large one
            EXPECT_EQ(r.get(r.first_bad), 0);
            EXPECT_EQ(r.get(0xFFFFFFFD), 0);
            EXPECT_EQ(m.view.get_uint32_le(8), 0u); // a silent one
            Debug_filter::remove_filter(_JDB::jdb_receiver);
            const std::string line = "Binary_message: index out of range " + std::to_string(r.number) + "\n";
            EXPECT_EQ(err.text(), on ? line + line : "");
        }
    }
}

TEST(Binary_message, strings_are_taken_only_with_their_zero_inside) {
    const Exact m({'a', 'b', 'c', 0, 'd', 'e'});
    static const struct {
        uint32_t offset, maxlen;
        const char *string, *partial;
    } rows[] = {
        {0, 3, "abc", "abc"}, {0, 2, "", "abc"}, // the zero is the fourth byte
        {1, 4, "bc", "bc"},   {1, 5, "", "bc"},  // reaches beyond the view
        {3, 0, "", ""},       {4, 1, "", ""},    // no zero behind
        {6, 0, "", ""},       {7, 0, "", nullptr}, {3, 0xFFFFFFFE, "", ""}, {0xFFFFFFFF, 2, "", nullptr},
    };
    for (const auto& r : rows) {
        EXPECT_STREQ(m.view.get_string(r.offset, r.maxlen), r.string) << r.offset << ' ' << r.maxlen;
        EXPECT_STREQ(m.view.get_partial_string(r.offset), r.partial) << r.offset;
    }
}

TEST(Binary_message, set_string_fills_its_room_or_writes_nothing) {
    static const struct {
        uint32_t offset, len;
        const char *text, *after;
    } rows[] = {
        {1, 3, "xy", "-xy\0\0-"}, {1, 3, "wxyz", "-wxy\0-"},       {2, 3, "", "--\0\0\0\0"},
        {2, 4, "xy", "------"},   {0xFFFFFFFF, 3, "xy", "------"},
    };
    for (const auto& r : rows) {
        Exact m(std::vector<unsigned char>(6, '-'));
        m.view.set_string(r.offset, r.text, r.len);
        EXPECT_EQ(memcmp(m.bytes.data(), r.after, 6), 0) << r.offset << ' ' << r.text;
    }
}

TEST(Binary_message, blocks_of_bytes_are_copied_whole_or_not_at_all) {
    Exact m({1, 2, 3, 4, 5});
    static const struct {
        uint32_t offset, count;
        bool inside;
    } rows[] = {{0, 5, true}, {2, 3, true}, {2, 4, false}, {5, 0, true}, {6, 0, false}, {0xFFFFFFFF, 2, false}};
    for (const auto& r : rows) {
        unsigned char copy[5] = {9, 9, 9, 9, 9};
        EXPECT_EQ(m.view.get_bytes(r.offset, r.count), r.inside ? m.bytes.data() + r.offset : nullptr);
        EXPECT_EQ(m.view.get_bytes(r.offset, copy, r.count), r.inside);
        EXPECT_EQ(copy[0], r.inside && r.count > 0 ? r.offset + 1 : 9) << r.offset << ' ' << r.count;
    }
    unsigned char copy[6] = {};
    EXPECT_TRUE(m.view.get_data(copy, 4));
    EXPECT_FALSE(m.view.get_data(copy, 6));
    EXPECT_EQ(memcmp(copy, "\1\2\3\4\0", 6), 0);
    m.view.set_bytes(0, 0, 2);
    m.view.set_bytes(3, "\7\x8", 2);
    EXPECT_EQ(m.bytes, (std::vector<unsigned char>{0, 0, 3, 7, 8}));
}

TEST(Binary_message, single_bits_count_from_the_least_significant) {
    Exact m({0x81, 0x00});
    EXPECT_TRUE(m.view.get_bit_msb(0, 0) && m.view.get_bit_msb(0, 7));
    EXPECT_FALSE(m.view.get_bit_msb(0, 1) || m.view.get_bit_msb(0, 8) || m.view.get_bit_msb(2, 0));
    m.view.set_bit_msb(0, false, 7);
    m.view.set_bit_msb(1, true, 3);
    m.view.set_bit_msb(1, true, 8);
    EXPECT_EQ(m.bytes, (std::vector<unsigned char>{0x01, 0x08}));
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

TEST(Binary_message, a_mask_lies_in_message_order) {
    static const struct {
        uint32_t first_bit, nbits;
        bool msb;
        unsigned char bytes[4];
        uint32_t shift;
    } rows[] = {
        {6, 4, true, {0x03, 0xC0}, 6}, {6, 4, false, {0xC0, 0x03}, 6},      {8, 8, false, {0, 0xFF}, 8},
        {8, 8, true, {0, 0xFF}, 0},    {31, 1, false, {0, 0, 0, 0x80}, 31}, {0, 32, true, {0xFF, 0xFF, 0xFF, 0xFF}, 0},
        {0, 0, false, {}, 0},
    };
    const Exact m({0x12, 0x34, 0x56, 0x78});
    for (const auto& r : rows) {
        const Binary_message::Mask mask(r.first_bit, r.nbits, r.msb);
        EXPECT_EQ(memcmp(mask.bytes, r.bytes, 4), 0) << r.first_bit << ' ' << r.nbits << ' ' << r.msb;
        EXPECT_EQ(mask.shift, r.shift) << r.first_bit << ' ' << r.nbits << ' ' << r.msb;
    }
    EXPECT_EQ(m.view.get_bits(0, Binary_message::Mask(6, 4, true)), 0x200u); // not shifted down
    EXPECT_EQ(m.view.get_bits(0xFFFFFFFF, Binary_message::Mask(0, 32, true)), 0u);
}

TEST(Binary_message, a_mask_of_more_than_four_bytes_ends_the_process) {
    for (const auto& [first, n] : {std::pair{1u, 32u}, {33u, 0u}, {0xFFFFFFFFu, 1u}}) {
        const Child_result r = run_child([first = first, n = n] {
            printf("before");
            Binary_message::Mask(first, n, true);
        });
        EXPECT_EQ(r.signal, SIGABRT) << first << ' ' << n;
        EXPECT_EQ(r.out, "before");
    }
}

TEST(Binary_message, orders_are_swapped_within_the_bits_that_are_asked_for) {
    static const struct {
        uint32_t value, nbits, bytes, bits;
    } rows[] = {
        {0x12345678, 17, 0x785634, 0x3CD4},
        {0x12345678, 0, 0, 0},
        {0x12345678, 0xFFFFFFFF, 0x78563412, 0x1E6A2C48},
    };
    for (const auto& r : rows) {
        EXPECT_EQ(Binary_message::swap_byte_order(r.value, r.nbits), r.bytes) << r.nbits;
        EXPECT_EQ(Binary_message::swap_bit_order(r.value, r.nbits), r.bits) << r.nbits;
    }
}

TEST(Binary_message, print_gives_a_line_for_each_byte) {
    const Exact m({0x0A, 0xFF});
    Capture err(stderr);
    m.view.print();
    EXPECT_EQ(err.text(), "0: 0a\n1: ff\n");
}

} // namespace
