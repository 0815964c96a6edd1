// SPDX-License-Identifier: MIT
#include "glue/cds/CDS_remote.h"
#include "glue/cds/CDS_remote_values.h"
#include "glue/cds/CDS_structure.h"
#include "support/capture.h"
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <string>

using namespace CDS::Remote;

namespace {

/// One value of each encoding, in order.
void append_all(Send_buffer& out) {
    out.append_BOOL(true);
    out.append_CHAR('c');
    out.append_INT8(-2);
    out.append_UINT8(254);
    out.append_INT16(-2);
    out.append_UINT16(0x0605);
    out.append_INT32(-2);
    out.append_UINT32(0x04030201);
    out.append_INT64(-2);
    out.append_UINT64(0x0807060504030201ULL);
    out.append_FLOAT(1.5f);
    out.append_DOUBLE(-2.5);
}

const std::string golden("\x01"
                         "c\xFE\xFE\xFE\xFF\x05\x06\xFE\xFF\xFF\xFF\x01\x02\x03\x04\xFE\xFF\xFF\xFF\xFF\xFF\xFF\xFF"
                         "\x01\x02\x03\x04\x05\x06\x07\x08\x00\x00\xC0\x3F\x00\x00\x00\x00\x00\x00\x04\xC0",
                         44);

TEST(Send_buffer, Writes_every_encoding) {
    char bytes[64];
    Send_buffer out(bytes, 0, sizeof bytes);
    append_all(out);
    EXPECT_EQ(std::string(bytes, out.position), golden);
    EXPECT_EQ(out.room, 20);
}

TEST(Send_buffer, Pages_of_any_size_join_to_the_whole_stream) {
    for (int page = 1; page <= 9; ++page) {
        std::string joined;
        for (int skip = 0;; skip += page) {
            const auto bytes = std::make_unique<char[]>(static_cast<size_t>(page));
            Send_buffer out(bytes.get(), skip, page);
            append_all(out);
            joined.append(bytes.get(), out.position);
            if (out.room > 0) break;
        }
        EXPECT_EQ(joined, golden) << page;
    }
}

TEST(Send_buffer, Drops_what_lies_outside_and_still_tells_the_width) {
    char bytes[8];
    Send_buffer cut(bytes, 0, 3);
    EXPECT_EQ(cut.append_UINT32(0x04030201), 4);
    EXPECT_EQ(cut.append_UINT8(9), 1);
    EXPECT_EQ(std::string(bytes, cut.position), "\x01\x02\x03");
    Send_buffer none(bytes, 0, -1);
    EXPECT_EQ(none.append_UINT8(9), 1);
    EXPECT_EQ(none.position, bytes);
}

TEST(Send_buffer, Complains_of_a_negative_offset_when_there_is_room) {
    char bytes[8];
    Capture err(stderr);
    Send_buffer with_room(bytes, -1, 8), without(bytes, -1, 0);
    with_room.append_UINT8(1);
    with_room.str_append("");
    without.append_UINT8(1);
    EXPECT_EQ(err.text(), "\n\nNegative offset!!\n\n\nNegative offset!!\n");
    EXPECT_EQ(with_room.room, 8);
}

TEST(Receive_buffer, Reads_back_every_encoding) {
    Receive_buffer in(golden.data(), static_cast<int>(golden.size()));
    bool b = false;
    char c = 0;
    signed char i8 = 0;
    unsigned char u8 = 0;
    short i16 = 0;
    unsigned short u16 = 0;
    long i32 = 0;
    unsigned int u32 = 0;
    long long i64 = 0;
    unsigned long long u64 = 0;
    float f = 0;
    double d = 0;
    EXPECT_TRUE(in.pop_BOOL(b) && in.pop_CHAR(c) && in.pop_INT8(i8) && in.pop_UINT8(u8) && in.pop_INT16(i16) &&
                in.pop_UINT16(u16) && pop_value(in, i32) && in.pop_UINT32(u32) && in.pop_INT64(i64) &&
                in.pop_UINT64(u64) && in.pop_FLOAT(f) && in.pop_DOUBLE(d));
    EXPECT_TRUE(b && c == 'c' && i8 == -2 && u8 == 254 && i16 == -2 && u16 == 0x0605 && i32 == -2);
    EXPECT_TRUE(u32 == 0x04030201 && i64 == -2 && u64 == 0x0807060504030201ULL && f == 1.5f && d == -2.5);
    EXPECT_EQ(in.remaining, 0);
    Receive_buffer odd("\x80", 1);
    EXPECT_TRUE(odd.pop_BOOL(b) && b);
}

TEST(Receive_buffer, A_short_one_changes_nothing) {
    const auto bytes = std::make_unique<char[]>(3);
    Receive_buffer in(bytes.get(), 3);
    unsigned int value = 77;
    EXPECT_FALSE(in.pop_UINT32(value));
    EXPECT_EQ(value, 77u);
    EXPECT_EQ(in.position, bytes.get());
    EXPECT_EQ(in.remaining, 3);
}

TEST(Receive_buffer, Reads_a_header) {
    const char text[] = "25:1a:my_name,";
    Receive_buffer in(text, sizeof text - 1);
    Data_item::item_type_t type;
    unsigned short id;
    int name_length;
    ASSERT_TRUE(in.pop_item(type, id, name_length));
    EXPECT_EQ(type, 0x25);
    EXPECT_EQ(id, 0x1A);
    EXPECT_EQ(std::string(in.position - name_length, in.position), "my_name");
    EXPECT_TRUE(in.field_sep());
    EXPECT_EQ(in.remaining, 1);
    EXPECT_FALSE(in.pop_one()); // the zero behind it
    EXPECT_FALSE(in.field_sep() || in.struct_start() || in.struct_finish() || in.pop_one());

    for (const char* bad : {"25-1a:x", "25:", ":1a:x", "zz:1:x", ""}) {
        Receive_buffer broken(bad, static_cast<int>(strlen(bad)));
        EXPECT_FALSE(broken.pop_item(type, id, name_length)) << bad;
        EXPECT_EQ(broken.position, bad);
    }
}

class Outline : public Structure_visitor {
public:
    bool item(const Described_item& i) override {
        text += std::string(static_cast<size_t>(i.depth), '>') +
                std::string(i.name, static_cast<size_t>(i.name_length)) + (i.container ? "{" : "") + " ";
        return text.size() < most;
    }
    std::string text;
    size_t most = 1000;
};

TEST(Structure, Is_read_from_untrusted_text) {
    struct {
        std::string text;
        Structure_result result;
        const char* outline;
    } const table[] = {
        {"1:12:root{5:13:speed,23:14:label}", structure_complete, "root{ >speed >label "},
        {"1:1:a{1:2:b{},1:3:c{4:4:d}},", structure_malformed, "a{ >b{ >c{ >>d "},
        {"1:1:a{}", structure_complete, "a{ "},
        {"4:1:x", structure_complete, "x "},
        {"4:1:x,4:2:y", structure_malformed, "x "},
        {"1:1:a{4:2:b", structure_cut, "a{ >b "},
        {"1:1:a{", structure_cut, "a{ "},
        {"1:1:a{4:2:b,", structure_cut, "a{ >b "},
        {"1:1:a{4:2:b,4", structure_cut, "a{ >b "},
        {"1:1:a{4:2:b,4:c", structure_cut, "a{ >b "},
        {"1:1:a{4:2:b,zz", structure_malformed, "a{ >b "},
        {"1:1:a{4:2:b,:", structure_malformed, "a{ >b "},
        {"4-1:x", structure_malformed, ""},
        {"1:1:a}", structure_malformed, "a "},
        {"", structure_cut, ""},
        {"{{{", structure_malformed, ""},
        {"1:1:a.b{4:2:c d}", structure_complete, "a.b{ >c d "},
    };
    for (const auto& row : table) {
        const auto exact = std::make_unique<char[]>(row.text.size()); // no zero behind it
        memcpy(exact.get(), row.text.data(), row.text.size());
        Outline outline;
        EXPECT_EQ(read_structure(exact.get(), static_cast<int>(row.text.size()), outline), row.result) << row.text;
        EXPECT_EQ(outline.text, row.outline) << row.text;
    }
    Outline brief;
    brief.most = 1;
    EXPECT_EQ(read_structure("1:1:a{4:2:b}", 12, brief), structure_stopped);
}

TEST(Structure, Survives_any_bytes) {
    std::mt19937 random(20261121);
    const std::string letters = "0123456789abcdef:,{}x_\0 ";
    for (int round = 0; round < 20000; ++round) {
        const size_t n = random() % 60;
        const auto text = std::make_unique<char[]>(n);
        for (size_t i = 0; i < n; ++i) text[i] = letters[random() % letters.size()];
        Outline outline;
        read_structure(text.get(), static_cast<int>(n), outline);
    }
    Outline outline;
    std::string nested;
    for (int i = 0; i < 1000; ++i) nested += "1:1:a{";
    outline.most = nested.size();
    EXPECT_EQ(read_structure(nested.data(), static_cast<int>(nested.size()), outline), structure_malformed);
}

} // namespace
