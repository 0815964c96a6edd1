// SPDX-License-Identifier: MIT
#include "glue/vorn/Ascii_message.h"
#include "glue/vorn/Binary_message.h"
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using namespace std::string_literals;

namespace {

/// A text of a heap block of exactly its size: no zero behind it.
struct Exact {
    explicit Exact(const std::string& content)
        : chars(content.begin(), content.end()), view(chars.data(), static_cast<uint32_t>(chars.size())) {}
    std::string text() const { return {chars.begin(), chars.end()}; }
    std::vector<char> chars;
    Ascii_message view;
};

/// The field as text, "(none)" when it does not exist.
std::string field(const Ascii_message& m, int k) {
    int len;
    const char* text = m.get_string(k, len);
    return text ? std::string(text, static_cast<size_t>(len)) : "(none)";
}

TEST(Ascii_message, fields_lie_between_commas_and_braces) {
    const struct {
        std::string text;
        std::vector<std::string> fields;
        int valid;
        std::string first_chars; ///< of all fields; '0' for none
    } rows[] = {
        {"{a,{{b},,c}\r\n", {"a", "b", "", "c"}, 2, "ab,c"},
        {"a,", {"a", ""}, 2, "a0"}, // an empty field is one that begins with a comma
        {"a}b,c", {"a", "c"}, 2, "ac"},
        {",a", {"", "a"}, 0, ",a"},
        {"{}", {""}, 1, "}"},
        {"\0"s, {""}, 1, "0"},
        {"a,b\0,c"s, {"a", "b"}, 2, "ab"}, // a zero ends the text
    };
    for (const auto& r : rows) {
        const Exact m(r.text);
        const int n = static_cast<int>(r.fields.size());
        for (int k = 0; k < n; ++k) {
            const char first = r.first_chars[static_cast<size_t>(k)];
            EXPECT_EQ(field(m.view, k), r.fields[static_cast<size_t>(k)]) << r.text << ' ' << k;
            EXPECT_EQ(m.view.get_char(k), first == '0' ? '\0' : first) << r.text << ' ' << k;
            EXPECT_TRUE(m.view.field_exists(k) && m.view.is_field_valid(k) == (first != ',')) << r.text << ' ' << k;
        }
        for (const int k : {-1, n, n + 5}) {
            EXPECT_EQ(field(m.view, k), "(none)") << r.text << ' ' << k;
            EXPECT_FALSE(m.view.field_exists(k) || m.view.is_field_valid(k)) << r.text << ' ' << k;
            EXPECT_EQ(m.view.get_char(k), '\0');
        }
        EXPECT_EQ(m.view.get_num_valid_fields(), r.valid) << r.text;
    }
}

TEST(Ascii_message, numbers_are_read_from_their_field_alone) {
    static const struct {
        const char* field;
        double real;
        uint32_t natural;
        int32_t integer;
    } rows[] = {
        {" \t-7.5e1x", -75, 4294967289u, -7},
        {"0x10", 16, 0, 0},
        {"4294967295", 4294967295.0, 4294967295u, 2147483647},
        {"x1", 0, 0, 0},
        {"000000000000000000000000000000000000000000000000000000000000000123", 0, 0, 0}, // 63 characters are looked at
    };
    for (const auto& r : rows) {
        // The neighbours are digits, and the last field ends at the end of the block.
        for (const int k : {1, 3}) {
            const Exact m("9,"s + r.field + ",9,{" + r.field);
            EXPECT_EQ(m.view.get_double(k), r.real) << r.field;
            EXPECT_EQ(m.view.get_uint32(k), r.natural) << r.field;
            EXPECT_EQ(m.view.get_int32(k), r.integer) << r.field;
        }
    }
    const Exact m("1.5");
    EXPECT_TRUE(m.view.get_double(1) == 0 && m.view.get_uint32(1) == 0 && m.view.get_int32(-1) == 0);
}

TEST(Ascii_message, durations_are_summed_up_to_their_seconds) {
    static const struct {
        const char* text;
        int32_t seconds;
    } rows[] = {
        {"1d2h3m4s", 93784}, {" 1h -1s", 3599}, {"5s!", 5}, {"5x", 0},   {"2h3m", 0},
        {"2hs", 0},          {"h4s", 0},        {"", 0},    {"1s2d", 1},
    };
    for (const auto& r : rows) {
        const Exact m(","s + r.text);
        EXPECT_EQ(m.view.get_timeval(1), r.seconds) << r.text;
        EXPECT_EQ(Ascii_message::parse_timeval(r.text, static_cast<int>(strlen(r.text))), r.seconds) << r.text;
    }
    EXPECT_EQ(Ascii_message::parse_timeval("2h3m4s", 5), 0);
}

TEST(Ascii_message, searches_and_comparisons_end_with_the_view) {
    const Exact m("AB,A");
    EXPECT_EQ(m.view.strchr(m.view.text + 1, 'A'), m.view.text + 3);
    EXPECT_EQ(m.view.strchr(m.view.text + 4, 'A'), nullptr);
    const std::tuple<const char*, int, bool> rows[] = {
        {"AC", -1, false}, {"AC", 1, true}, {"AB,A", 4, true}, {"AB,ABC", -1, true}, {"AB", 3, false}};
    for (const auto& [name, n, match] : rows) EXPECT_EQ(m.view.name_match(name, n), match) << name << ' ' << n;
    EXPECT_TRUE(Exact("").view.isnull() && Exact("\0A"s).view.isnull() && !m.view.isnull());
}

TEST(Ascii_message, a_message_is_viewed_and_copied_with_or_without_its_header) {
    const struct {
        std::string source;
        bool skip;
        std::string viewed, copied; ///< copied into room for four
    } rows[] = {
        {"NP004,abc", false, "NP004,abc", "NP00"},
        {"NP004,abc", true, "abc", "abc\0"s},
        {"NP", true, "", "\0\0\0\0"s},
        {"a\0b"s, false, "a\0b"s, "a\0\0\0"s}, // the text ends at its zero
    };
    for (const auto& r : rows) {
        Exact source(r.source), target("wxyz");
        const Binary_message message(source.chars.data(), source.view.size);
        const Ascii_message view(message, r.skip);
        EXPECT_EQ(std::string(view.text, view.size), r.viewed);
        target.view.set(message, r.skip);
        EXPECT_EQ(target.text(), r.copied) << r.source;
    }
}

TEST(Ascii_message, shifting_moves_the_rest_to_the_front_and_puts_no_zero) {
    static const struct {
        const char* text;
        int k;
        const char* after; ///< null: refused
    } rows[] = {{"a,b,cd", 1, "b,cdcd"}, {"a,{b}", 1, "b}{b}"}, {"ab,", 1, "ab,"}, {"a,b", 2, nullptr}};
    for (const auto& r : rows) {
        Exact m(r.text);
        EXPECT_EQ(m.view.shift_fields(r.k), r.after != nullptr) << r.text;
        EXPECT_EQ(m.text(), r.after ? r.after : r.text);
        EXPECT_EQ(m.view.size, m.chars.size());
    }
}

TEST(Ascii_message, setup_puts_its_zero_behind_the_text_even_past_the_given_size) {
    static const struct {
        uint32_t dst_size, length;
        std::string after; ///< of eight bytes that were '-'
    } rows[] = {
        {6, 4, "abcd\0---"s},
        {5, 5, "abcd\0\0--"s},
        {4, 4, "abcd\0---"s},
        {0, 0, "\0-------"s},
    };
    for (const auto& r : rows) {
        const Exact source("abcd");
        Ascii_message m = source.view;
        std::vector<char> dst(8, '-');
        m.setup(dst.data(), r.dst_size);
        EXPECT_EQ(std::string(dst.begin(), dst.end()), r.after) << r.dst_size;
        EXPECT_EQ(m.text, dst.data());
        EXPECT_EQ(m.size, r.length) << r.dst_size;
    }
}

} // namespace
