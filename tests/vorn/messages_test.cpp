// SPDX-License-Identifier: MIT
#include "glue/vorn/Ascii_message.h"
#include "glue/vorn/Vorn_error_decoder.h"
#include "glue/vorn/Vorn_response.h"
#include "support/frame.h"
#include "support/stress.h"
#include "support/test.h"
#include "util/Debug_base.h"

using namespace std::string_literals;

namespace {

Random c(1);

struct Block {
    std::vector<char> bytes; // without a zero behind
};
/// A view of a heap block of exactly its size, so that the sanitizer sees any byte too many.
template <class Message>
struct Exact : Block, Message {
    explicit Exact(const std::string& s)
        : Block{{s.begin(), s.end()}}, Message(bytes.data(), static_cast<uint32_t>(s.size())) {}
    std::string all() const { return {bytes.begin(), bytes.end()}; }
};
using B = Binary_message;
using Bytes = Exact<B>;
using Framed = Exact<Vorn_message>;
using Reply = Exact<Vorn_response>;
using Text = Exact<Ascii_message>;

/// A pair of accessors against the bytes put together one by one, and what a field outside is reported as, if it is.
template <class T>
void check(T (B::*get)(uint32_t) const, void (B::*set)(uint32_t, T), unsigned width, bool big, int number = 0) {
    const Bytes m("\x81\x12\xA3\x34\xC5\x56\xE7\x98\x09");
    for (uint32_t o = 0xFFFFFFF0; o != m.size + 9; ++o) { // from the highest ones over 0
        const bool inside = uint64_t{o} + width <= m.size;
        uint64_t value = 0;
        for (unsigned i = 0; inside && i < width; ++i)
            value += uint64_t{m.data[o + i]} << 8 * (big ? width - 1 - i : i);
        const T got = (m.*get)(o);
        ASSERT_EQ(memcmp(&got, &value, sizeof got), 0) << o; // on little-endian hosts
        if (!inside) continue;
        Bytes target(m.all().replace(o, width, width, 'Z'));
        target.size = 0; // setters do not look at it
        (target.*set)(o, got);
        ASSERT_EQ(target.all(), m.all()) << o;
    }
    const auto said = [&] { return debug_text([&] { (m.*get)(m.size); }); };
    EXPECT_EQ(said(), "") << "the category is off";
    Debug_filter::add_filter(_JDB::jdb_receiver);
    EXPECT_EQ(said(), number == 0 ? "" : text_of("Binary_message: index out of range %d\n", number));
    Debug_filter::remove_filter(_JDB::jdb_receiver);
}

#define CHECK_BOTH_ORDERS(type, width)                                                                                 \
    check(&B::get_##type##_le, &B::set_##type##_le, width, false);                                                     \
    check(&B::get_##type##_be, &B::set_##type##_be, width, true)

TEST(Binary_message, numbers_are_read_as_their_bytes_say_and_as_0_outside_and_written_back_the_same) {
    check(&B::get_int8, &B::set_int8, 1, false);
    check(&B::get_uint8, &B::set_uint8, 1, false);
    CHECK_BOTH_ORDERS(int16, 2);
    CHECK_BOTH_ORDERS(uint16, 2);
    CHECK_BOTH_ORDERS(int32, 4);
    CHECK_BOTH_ORDERS(uint32, 4);
    CHECK_BOTH_ORDERS(int64, 8);
    CHECK_BOTH_ORDERS(uint64, 8);
    check(&B::get_int24_le, &B::set_int24_le, 3, false, 75); // without a sign
    check(&B::get_uint24_le, &B::set_uint24_le, 3, false, 124);
    check(&B::get_int24_be, &B::set_int24_be, 3, true, 568);
    check(&B::get_uint24_be, &B::set_uint24_be, 3, true, 610);
    check(&B::get_float, &B::set_float, 4, false, 42);
    check(&B::get_double, &B::set_double, 8, false, 52);
}

TEST(Binary_message, strings_and_blocks_are_taken_and_put_whole_or_not_at_all) {
    const Bytes m("abc\0de"s);
    for (const auto& [offset, length, text] :
         {std::tuple{0u, 3u, "abc"}, {0u, 2u, ""}, {1u, 5u, ""}, {4u, 1u, ""}, {7u, 0u, ""}, {~0u, 2u, ""}})
        EXPECT_STREQ(m.get_string(offset, length), text) << offset << ' ' << length;
    for (const auto& [offset, text] : {std::pair{1u, "bc"}, {4u, ""}, {6u, ""}, {7u, static_cast<char*>(nullptr)}})
        EXPECT_STREQ(m.get_partial_string(offset), text) << offset;
    char copy[4] = "??";
    EXPECT_VALUES(texts(m.data + 2, true, "bc"s), m.get_bytes(2, 4), m.get_bytes(1, copy, 3), copy);
    EXPECT_VALUES("true null null", m.get_bytes(6, 0u) != nullptr, m.get_bytes(7, 0u), m.get_bytes(~0u, 2));
    EXPECT_VALUES("false false false", m.get_bytes(4, copy, 3), m.get_data(copy, 7), copy != "bc"s);

    Bytes target("...............");
    target.set_string(0, "xy", 3);
    target.set_string(4, "wxyz", 3);
    for (const uint32_t offset : {12u, ~0u}) target.set_string(offset, "xy", 3);
    target.set_bytes(8, 0, 2);
    target.set_bytes(10, "\7\x8", 2);
    target.set_bit_msb(12, true, 6);  // counted from the least significant
    target.set_bit_msb(12, true, 36); // no bit of a byte
    EXPECT_EQ(target.all(), "xy\0\0wxy\0\0\0\7\x8n.."s);
    EXPECT_VALUES("true false false false", target.get_bit_msb(12, 6), target.get_bit_msb(12, 4),
                  target.get_bit_msb(12, 38), target.get_bit_msb(15, 0));
}

TEST(Binary_message, bit_fields_are_read_and_written_bit_by_bit_and_leave_their_neighbours) {
    for (int round = 0; round < 4000; ++round) {
        Bytes m(c.bytes(8));
        std::string wanted = m.all();
        const bool msb = round % 2 != 0; // bits are counted from the first byte's top bit, else from its bottom bit
        const uint32_t first = c(33u), n = c(33 - first), offset = c(8u);
        const uint32_t value = c(UINT_MAX);
        uint32_t field = 0;
        for (uint32_t i = 0; i < n; ++i) {
            const uint32_t at = offset * 8 + first + i, power = msb ? n - 1 - i : i;
            if (at >= 64) continue; // outside are zeros
            const auto bit = static_cast<unsigned char>(msb ? 0x80 >> at % 8 : 1 << at % 8);
            field |= uint32_t{(wanted[at / 8] & bit) != 0} << power;
            wanted[at / 8] = static_cast<char>((wanted[at / 8] & ~bit) | (value >> power & 1 ? bit : 0));
        }
        ASSERT_EQ((m.*(msb ? &B::get_bits_msb : &B::get_bits_lsb))(offset, first, n), field) << first << ' ' << n;
        if (offset > 4) continue; // would write outside
        (m.*(msb ? &B::set_bits_msb : &B::set_bits_lsb))(offset, first, n, value);
        ASSERT_EQ(m.all(), wanted) << offset << ' ' << first << ' ' << n << ' ' << msb;
    }
    const B::Mask msb(6, 4, true), lsb(6, 4, false);
    EXPECT_VALUES("0 6", memcmp(msb.bytes, "\x03\xC0\0", 4), msb.shift);
    EXPECT_VALUES("0 6", memcmp(lsb.bytes, "\xC0\x03\0", 4), lsb.shift);
    EXPECT_EQ(Bytes("\x12\x34").get_bits(0, msb), 0x200u) << "not shifted down";
    EXPECT_EQ(run_child([] { B::Mask(1, 32, true); }).signal, SIGABRT);
    EXPECT_VALUES(texts(0x785634, 0x3CD4), B::swap_byte_order(0x12345678, 17), B::swap_bit_order(0x12345678, 17));
}

TEST(Vorn_message, length_and_checksum_are_read_from_a_view_that_holds_them) {
    const std::string odd = "contains non-hex digit";
    const std::tuple<const char*, int, std::string> headers[] = {{"PG01E", 30, ""},       {"PGfFf", 4095, ""},
                                                                 {"PG0G1", 0, odd},       {"PG00`", 0, odd},
                                                                 {"PG0\xB3\xB0", 0, odd}, {"PG00", 0, ""}};
    for (const auto& [header, length, said] : headers) {
        Capture err(stderr);
        EXPECT_VALUES(texts(length, said), Framed(header).get_msg_len(), err.text()) << header;
    }
    const std::string good = Frame("PG").text("\x01\x02\x03").str();
    const std::vector<std::string> rows[] = {
        {good, good.substr(0, 8) + "?\n", good.substr(0, 7) + "\n", "PG0\n", "NP005ab@G7\n",
         "NP005ab@D3\r\n", // the digits are not at the end
         "PG000\n"},       // without a body the last length digit stands where the checksum would be
        {good + "\n", "NP005ab@D3\n", "NP006xyz@3e\r", "aJ000\n"}};
    for (const bool right : {false, true})
        for (const std::string& bytes : rows[right]) {
            const Framed f(bytes);
            const uint16_t id = f.get_id(), other = static_cast<uint16_t>(id + 1);
            EXPECT_VALUES(texts(right, right, false), f.check_checksum(), f.validate(id), f.validate(other)) << bytes;
        }
    Framed f("PG004\x01\x02\x03?\n"), cut("PG004abc");
    EXPECT_VALUES(texts(true, good + "\n"), f.set_checksum(), f.all());
    EXPECT_VALUES("false PG004abc", cut.set_checksum(), cut.all());
}

TEST(Vorn_message, writers_of_the_length_put_three_digits_within_the_limit) {
    const std::string rest(4097, '!'), before = "ZZ???" + rest;
    for (const uint32_t body : {0u, 0xABCu, 4095u, 4096u, 65536u, 0xFFFFFFFBu, 0xFFFFFFFFu}) {
        const bool ok = body <= 4095;
        Framed f(before), reduced(before);
        Reply r(before);
        EXPECT_VALUES(texts(ok, ok, ok), f.setup('P' | 'G' << 8, body + 5), reduced.reduce_size_to(body),
                      r.set_msg_len(body));
        EXPECT_VALUES(texts(before.size(), ok ? body + 5 : before.size()), f.size, reduced.size) << body;
        EXPECT_EQ(f.all(), ok ? text_of("PG%03X", body) + rest : before);
        for (const std::string& text : {reduced.all(), r.all()})
            EXPECT_EQ(text, ok ? text_of("ZZ%03x", body) + rest : before);
    }
    Framed f("ZZ???abc");
    EXPECT_VALUES("false ZZ???abc true", f.reduce_size_to(4), f.all(), f.reduce_size_to(3));
}

TEST(Vorn_response, gives_its_text_with_line_end_and_zero_or_stripped_of_the_request) {
    const std::pair<std::string, std::string> rows[] = {
        // Status, text, a bar, and what is left without the request.
        {"RE003abc\r\n\0\0"s, "true abc\r\n|none 0"},
        {"ER003abc\r\n\0"s, "false |none 0"}, // one byte short
        {"RE003abc\r\n.."s, "true |none 0"},  // no zero
        {"RE00B%7%on, off \r\n\0\0"s, "true %7%on, off \r\n|on, off 7"},
        {"ER010%%{4,wrong command}\r\n", "false |{4,wrong command} 17"},
        {"RE000%a% \tb%c%", "true |b%c% 4"},
        {"RE000%a%x\x7F\x01\r\n", "true |x 1"},
        {"RE000%a%\xE9\xA0", "true |\xE9\xA0 2"}, // no white space in this language
        {"RE000%a% \r\n", "true |none 0"},
        {"RE000%a\0%old"s, "true |none 0"}, // left from a longer packet
    };
    for (const auto& [bytes, told] : rows) {
        Reply r(bytes);
        const std::string text = texts(r.get_response_status(), r.get_response_string()) + "|";
        int len = -1;
        const char* const rest = r.strip_identifier(len);
        EXPECT_EQ(text + texts(rest ? std::string(rest, size_t(len)) : "none", len), told);
        const char *const begin = r.bytes.data(), *const shown = reinterpret_cast<char*>(r.data);
        EXPECT_VALUES(texts(rest ? rest - begin : 0, bytes.size()), shown - begin, shown - begin + r.size) << bytes;
    }
    const Reply abc(rows[0].first);
    EXPECT_VALUES("true false", abc.check_response_string("abc"), abc.check_response_string("abc\r\n!"));
}

TEST(Ascii_message, fields_lie_between_commas_and_braces) {
    const std::pair<std::string, std::string> rows[] = {
        // With each field its first byte and its end as a bar, then the number of valid ones.
        {"{a,{{b},,c}\r\n", "a:a|b:b|,:|c:c|2"},
        {"a,", "a:a||2"}, // an empty field is one that begins with a comma
        {",a}b", ",:|a:a|0"},
        {"{}", "}:|1"},
        {"a,b\0,c"s, "a:a|b:b|2"}, // a zero ends the text
    };
    for (const auto& [text, fields] : rows) {
        const Text m(text);
        std::string found;
        int len, k = 0;
        for (; const char* field = m.get_string(k, len); ++k) {
            const char first = m.get_char(k);
            found += (first ? first + ":"s : "") + std::string(field, static_cast<size_t>(len)) + "|";
            EXPECT_VALUES(texts(true, first != ','), m.field_exists(k), m.is_field_valid(k)) << text;
        }
        EXPECT_EQ(found + std::to_string(m.get_num_valid_fields()), fields);
        EXPECT_VALUES("false 0 false", m.field_exists(k), m.get_char(k), m.is_field_valid(-1)) << text;
    }
}

TEST(Ascii_message, numbers_and_durations_are_read_from_their_field_alone) {
    const std::pair<std::string, std::string> rows[] = {
        {" \t-7.5e1x", "-75 4294967289 -7 0"},
        {"4294967295", "4294967295 4294967295 2147483647 0"},
        {"x1", "0 0 0 0"},
        {std::string(63, '0') + "123", "0 0 0 0"}, // so many characters count
        {"1d2h3m4s", "1 1 1 93784"},
        {" 1h -1s!2d", "1 1 1 3599"},
        {"2h3m", "2 2 2 0"},
        {"2hs", "2 2 2 0"},
    };
    for (const auto& [field, values] : rows) {
        const Text m("9," + field + ",9,{" + field); // the neighbours are digits, the last one ends with the block
        for (const int k : {1, 3})
            EXPECT_VALUES(values, m.get_double(k), m.get_uint32(k), m.get_int32(k), m.get_timeval(k)) << field;
    }
    EXPECT_EQ(Ascii_message::parse_timeval("2h3m4s", 5), 0);
}

TEST(Ascii_message, searches_copies_and_shifts_end_with_the_view) {
    const Text m("AB,A");
    EXPECT_VALUES("3 true", m.strchr(&m.text[1], 'A') - m.text, m.strchr(&m.text[4], 'A') == nullptr);
    EXPECT_VALUES("true true false", m.name_match("AC", 1), m.name_match("AB,ABC"), m.name_match("AC"));
    EXPECT_VALUES("true true false", Text("").isnull(), Text("\0A"s).isnull(), m.isnull());

    // Copied with or without a header into room for four.
    const auto copied = [](const std::string& bytes, bool skip) {
        Text target("wxyz");
        target.set(Bytes(bytes), skip);
        return target.all();
    };
    EXPECT_VALUES("NP00 a\0\0\0 abc\0 \0\0\0\0"s, copied("NP004,abc", false), copied("a\0b"s, false),
                  copied("NP004,abc", true), copied("NP", true));
    for (const auto& [text, after] :
         {std::pair{"a,b,cd"s, "b,cdcd"s}, {"a,{b}", "b}{b}"}, {"ab,", "ab,"}, {"ab", "ab"}}) {
        Text shifted(text);
        EXPECT_VALUES(texts(text != "ab", after), shifted.shift_fields(1), shifted.all());
    }
    // Set up in a buffer of a size that may be passed by the zero.
    for (const auto& [room, after] :
         {std::pair{6u, "abcd\0---"s}, {5u, "abcd\0\0--"s}, {4u, "abcd\0---"s}, {0u, "\0-------"s}}) {
        const Text source("abcd");
        Ascii_message text = source;
        std::string dst(8, '-');
        text.setup(dst.data(), room);
        EXPECT_VALUES(texts(after, true, room == 6 ? 4 : room), dst, text.text == dst.data(), text.size) << room;
    }
}

using Decoder = Vorn_error_decoder;

TEST(Vorn_error_decoder, numbers_and_texts_lead_to_each_other_from_the_first_use_by_any_thread_on) {
    std::thread threads[4];
    for (std::thread& t : threads) t = std::thread([] { EXPECT_EQ(Decoder::get("data transfer delay"), 41); });
    for (std::thread& t : threads) t.join();
    Decoder::init();
    EXPECT_VALUES("true 41 false", Decoder::init_done, Decoder::lookup.count, Decoder::lookup.insert({"a", 42}));
    EXPECT_VALUES("null null null ,device busy,invalid file length", errcode2str(0), errcode2str(42), errcode2str(-1),
                  errcode2str(40));
    for (int code = 1; code <= 41; ++code) {
        const char* const text = errcode2str(code);
        EXPECT_VALUES(texts(',', code, -1), *text, Decoder::get(text + 1), Decoder::get(text)) << code;
    }
    for (const char* text : {"", "wrong", "wrong command ", "device busy"}) EXPECT_EQ(Decoder::get(text), -1) << text;

    const std::pair<std::string, int> replies[] = {
        {"ER011{4,file not found}", 37},
        {"{4,file not found}\r\n", 37}, // a brace ends the text, also before a line end
        {"4,file not found\r\n", -1},
        {"{file not found,ok}", -1},
        {"a," + std::string(64, 'x'), -1},
        {"file not found}" + std::string(100, 'x'), 37},
        {std::string(70, 'x') + ",dup loop", 24},
    };
    for (const auto& [reply, code] : replies) EXPECT_EQ(Decoder::extract(reply.c_str()), code) << reply;
    EXPECT_EQ(Decoder::extract("4,file not found\r\n", 16), 37);
}

} // namespace
