// SPDX-License-Identifier: MIT
#include "glue/vorn/Ascii_message.h"
#include "glue/vorn/Vorn_response.h"
#include "support/capture.h"
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <tuple>
#include <vector>

using namespace std::string_literals;

namespace {

constexpr uint16_t id_pg = 'P' | 'G' << 8;

/// A message of a heap block of exactly its size.
template <class Message>
struct Exact {
    explicit Exact(const std::string& content)
        : bytes(content.begin(), content.end()), view(bytes.data(), static_cast<uint32_t>(bytes.size())) {}
    std::string text() const { return {bytes.begin(), bytes.end()}; }
    std::vector<char> bytes; // without a zero behind
    Message view;
};
using Frame = Exact<Vorn_message>;
using Reply = Exact<Vorn_response>;
using Text = Exact<Ascii_message>;

/// The checksum one byte at a time.
unsigned char checksum(const std::string& covered) {
    unsigned sum = 0;
    for (const char c : covered) sum = ((sum << 2 | sum >> 6) & 0xFF) ^ static_cast<unsigned char>(c);
    return static_cast<unsigned char>(sum << 2 | sum >> 6);
}

std::string with_checksum(const std::string& covered) { return covered + static_cast<char>(checksum(covered)); }

/// The form for text: the body ends in "@" and two digits for the sum of everything before them.
std::string with_digits(const std::string& covered, const char* format) {
    char digits[4];
    snprintf(digits, sizeof digits, format, unsigned(checksum(covered)));
    return covered + digits;
}

TEST(Vorn_message, length_is_three_hex_digits_of_either_case) {
    static const struct {
        std::string header;
        uint32_t length;
        bool complains;
    } rows[] = {{"PG01E", 30, false}, {"PGfFf", 4095, false}, {"PG00", 0, false},
                {"PG0G1", 0, true},   {"PG00`", 0, true},     {"PG0\xB3\xB0", 0, true}};
    for (const auto& r : rows) {
        const Frame f(r.header);
        Capture err(stderr);
        EXPECT_EQ(f.view.get_msg_len(), r.length) << r.header;
        EXPECT_EQ(err.text(), r.complains ? "contains non-hex digit" : "") << r.header;
    }
}

TEST(Vorn_message, checksum_rotates_and_adds_each_byte) {
    EXPECT_EQ(Frame("\xC1").view.compute_8bit_checksum(1), 0x07);
    std::mt19937 random(4);
    for (int round = 0; round < 100; ++round) {
        std::string bytes(random() % 90, '\0');
        for (char& c : bytes) c = static_cast<char>(random());
        const Frame f(bytes);
        for (size_t n = 0; n <= bytes.size(); ++n) {
            ASSERT_EQ(f.view.compute_8bit_checksum(static_cast<uint32_t>(n)), checksum(bytes.substr(0, n))) << n;
        }
        ASSERT_EQ(f.view.compute_8bit_checksum(0xFFFFFFFF), checksum(bytes)) << "more than there is";
    }
}

TEST(Vorn_message, a_frame_is_right_with_its_checksum_and_a_line_end) {
    const std::string good = with_checksum("PG004\x01\x02\x03");
    std::string wrong = good;
    wrong.back() ^= 1;
    const std::string text_sum = with_digits("NP005ab@", "%02X");
    const struct {
        const char* what;
        std::string frame;
        bool right;
    } rows[] = {
        {"with LF", good + "\n", true},
        {"with CR LF", good + "\r\n", true},
        {"without a line end", good, false},
        {"with a zero at the end", good + "\n\0"s, false},
        {"with a wrong sum", wrong + "\n", false},
        {"cut by one byte", good.substr(0, 7) + "\n", false},
        {"below five bytes", "PG0\n", false},
        {"with digits for a sum", text_sum + "\n", true},
        {"with lower-case digits for a sum", with_digits("NP006xyz@", "%02x") + "\r", true},
        {"with a wrong digit for a sum", text_sum.substr(0, 8) + "G7\n", false},
        {"with digits, but not at the end", text_sum + "\r\n", false},
        // Without a body the last length digit stands where the checksum would be.
        {"without a body", "PG000\n", false},
        {"without a body, the digit happens to be the sum", "aJ000\n", true},
    };
    for (const auto& r : rows) {
        const Frame f(r.frame);
        EXPECT_EQ(f.view.check_checksum(), r.right) << r.what;
        EXPECT_EQ(f.view.validate(f.view.get_id()), r.right) << r.what;
        EXPECT_FALSE(f.view.validate(static_cast<uint16_t>(f.view.get_id() + 1))) << r.what;
    }
}

TEST(Vorn_message, set_checksum_makes_a_right_frame_or_writes_nothing) {
    Frame f("PG004abc?\n");
    EXPECT_TRUE(f.view.set_checksum());
    EXPECT_EQ(f.text(), with_checksum("PG004abc") + "\n");
    EXPECT_TRUE(f.view.validate(id_pg));
    for (const char* cut : {"PG004abc", "PG00", ""}) {
        Frame c(cut);
        EXPECT_FALSE(c.view.set_checksum()) << cut;
        EXPECT_EQ(c.text(), cut);
    }
}

TEST(Vorn_message, writers_of_the_length_put_three_digits_within_the_limit) {
    for (const uint32_t body : {0u, 0xABCu, 4095u, 4096u, 65536u}) {
        const bool ok = body <= 4095;
        const std::string rest(4097, '!'), before = "ZZ???" + rest;
        char capital[9], small[9];
        snprintf(capital, sizeof capital, "PG%03X", body);
        snprintf(small, sizeof small, "ZZ%03x", body);
        Frame by_setup(before), by_reduce(before);
        Reply by_length(before);
        EXPECT_EQ(by_setup.view.setup(id_pg, body + 5), ok) << body;
        EXPECT_EQ(by_reduce.view.reduce_size_to(body), ok) << body;
        EXPECT_EQ(by_length.view.set_msg_len(body), ok) << body;
        EXPECT_EQ(by_setup.text(), ok ? capital + rest : before);
        EXPECT_EQ(by_reduce.text(), ok ? small + rest : before);
        EXPECT_EQ(by_length.text(), by_reduce.text());
        EXPECT_EQ(by_setup.view.size, before.size());
        EXPECT_EQ(by_reduce.view.size, ok ? body + 5 : before.size());
    }
    Frame f("ZZ???abc");
    for (const uint32_t total : {0u, 4u, 0xFFFFFFFFu}) EXPECT_FALSE(f.view.setup(id_pg, total)) << total;
    for (const uint32_t body : {4u, 0xFFFFFFFBu, 0xFFFFFFFFu}) EXPECT_FALSE(f.view.reduce_size_to(body)) << body;
    EXPECT_EQ(f.text(), "ZZ???abc");
    EXPECT_TRUE(f.view.reduce_size_to(3));
}

TEST(Vorn_response, the_reply_string_keeps_its_line_end_and_needs_its_zero) {
    const struct {
        std::string reply;
        bool positive;
        const char* string;
    } rows[] = {
        {"RE003abc\r\n\0\0"s, true, "abc\r\n"},
        {"re003abc\r\n\0\0"s, false, "abc\r\n"},
        {"RE003abc\r\n\0"s, true, ""},  // one byte short
        {"RE003abc\r\n..."s, true, ""}, // no zero
        {"R", false, ""},
    };
    for (const auto& r : rows) {
        const Reply reply(r.reply);
        EXPECT_EQ(reply.view.get_response_status(), r.positive) << r.reply;
        EXPECT_STREQ(reply.view.get_response_string(), r.string) << r.reply;
    }
    const Reply reply(rows[0].reply);
    for (const char* s : {"", "ab", "abc\r\n"}) EXPECT_TRUE(reply.view.check_response_string(s)) << s;
    for (const char* s : {"b", "abc\r\n!", "ABC"}) EXPECT_FALSE(reply.view.check_response_string(s)) << s;
}

TEST(Vorn_response, the_identifier_of_the_request_is_stripped_off) {
    const struct {
        std::string reply;
        const char* text; ///< null: there is none
    } rows[] = {
        {"RE00C%7%on, off \r\n\0\0"s, "on, off"},
        {"ER010%%{4,wrong command}\r\n", "{4,wrong command}"},
        {"RE000%a% \tb%c%", "b%c%"},
        {"RE000%a%x\x7F\x01\r\n", "x"},
        {"RE000%a%\xE9\xA0", "\xE9\xA0"}, // no white space in this language
        {"RE000%a% \r\n", nullptr},
        {"RE000%a\0%old"s, nullptr}, // left from a longer packet
        {"RE000%a%b\0old"s, "b"},
        {"RE000a", nullptr},
    };
    for (const auto& r : rows) {
        Reply reply(r.reply);
        int len = -1;
        const char* text = reply.view.strip_identifier(len);
        ASSERT_EQ(text != nullptr, r.text != nullptr) << r.reply;
        EXPECT_EQ(std::string(text ? text : "", static_cast<size_t>(len)), r.text ? r.text : "") << r.reply;
        EXPECT_EQ(static_cast<const void*>(reply.view.data), text ? text : reply.bytes.data());
        EXPECT_EQ(static_cast<void*>(reply.view.data + reply.view.size), reply.bytes.data() + reply.bytes.size())
            << r.reply;
    }
}

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
        std::string first_bytes; ///< of all fields; '0' for none
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
        const Text m(r.text);
        const int n = static_cast<int>(r.fields.size());
        for (int k = 0; k < n; ++k) {
            const char first = r.first_bytes[static_cast<size_t>(k)];
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
            const Text m("9,"s + r.field + ",9,{" + r.field);
            EXPECT_EQ(m.view.get_double(k), r.real) << r.field;
            EXPECT_EQ(m.view.get_uint32(k), r.natural) << r.field;
            EXPECT_EQ(m.view.get_int32(k), r.integer) << r.field;
        }
    }
    const Text m("1.5");
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
        const Text m(","s + r.text);
        EXPECT_EQ(m.view.get_timeval(1), r.seconds) << r.text;
        EXPECT_EQ(Ascii_message::parse_timeval(r.text, static_cast<int>(strlen(r.text))), r.seconds) << r.text;
    }
    EXPECT_EQ(Ascii_message::parse_timeval("2h3m4s", 5), 0);
}

TEST(Ascii_message, searches_and_comparisons_end_with_the_view) {
    const Text m("AB,A");
    EXPECT_EQ(m.view.strchr(m.view.text + 1, 'A'), m.view.text + 3);
    EXPECT_EQ(m.view.strchr(m.view.text + 4, 'A'), nullptr);
    const std::tuple<const char*, int, bool> rows[] = {
        {"AC", -1, false}, {"AC", 1, true}, {"AB,A", 4, true}, {"AB,ABC", -1, true}, {"AB", 3, false}};
    for (const auto& [name, n, match] : rows) EXPECT_EQ(m.view.name_match(name, n), match) << name << ' ' << n;
    EXPECT_TRUE(Text("").view.isnull() && Text("\0A"s).view.isnull() && !m.view.isnull());
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
        Text source(r.source), target("wxyz");
        const Binary_message message(source.bytes.data(), source.view.size);
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
        Text m(r.text);
        EXPECT_EQ(m.view.shift_fields(r.k), r.after != nullptr) << r.text;
        EXPECT_EQ(m.text(), r.after ? r.after : r.text);
        EXPECT_EQ(m.view.size, m.bytes.size());
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
        const Text source("abcd");
        Ascii_message m = source.view;
        std::vector<char> dst(8, '-');
        m.setup(dst.data(), r.dst_size);
        EXPECT_EQ(std::string(dst.begin(), dst.end()), r.after) << r.dst_size;
        EXPECT_EQ(m.text, dst.data());
        EXPECT_EQ(m.size, r.length) << r.dst_size;
    }
}

} // namespace
