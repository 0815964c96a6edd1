// SPDX-License-Identifier: MIT
#include "glue/cds/CDS_remote.h"
#include "glue/cds/CDS_structure.h"
#include "support/frame.h"
#include "support/test.h"

using namespace CDS::Remote;

namespace {

TEST(Send_buffer, Pages_of_any_size_join_to_the_whole_stream) {
    for (int page = 1; page <= 20; ++page) {
        std::string joined;
        for (int skip = 0;; skip += page) {
            const auto bytes = std::make_unique<char[]>(static_cast<size_t>(page));
            Send_buffer out(bytes.get(), skip, page);
            EXPECT_EQ(out.append_UINT32(0x64636261), 4) << "its width, wherever the bytes go";
            EXPECT_EQ(out.append_UINT16(0x6665), 2);
            EXPECT_LE(out.str_append("ghij"), 4);
            EXPECT_EQ(out.append_UINT64(0x7271706F6E6D6C6BULL), 8);
            joined.append(bytes.get(), out.position);
            if (out.room > 0) break;
        }
        EXPECT_EQ(joined, "abcdefghijklmnopqr") << page;
    }
    // A negative offset is complained of when there is room.
    char bytes[8];
    Capture err(stderr);
    Send_buffer(bytes, -1, 8).append_UINT8(1);
    Send_buffer(bytes, -1, 8).str_append("");
    Send_buffer(bytes, -1, 0).append_UINT8(1);
    EXPECT_EQ(err.text(), "\n\nNegative offset!!\n\n\nNegative offset!!\n");
}

TEST(Receive_buffer, Reads_headers_and_nothing_when_it_is_short) {
    unsigned int value = 77;
    Receive_buffer cut("abc", 3);
    EXPECT_FALSE(cut.pop_UINT32(value));
    EXPECT_VALUES(texts(77, 3, 'a'), value, cut.remaining, *cut.position);
    const char text[] = "25:1a:my_name,";
    Receive_buffer in(text, sizeof text - 1);
    Data_item::item_type_t type;
    unsigned short id;
    int name_length;
    ASSERT_TRUE(in.pop_item(type, id, name_length));
    EXPECT_VALUES(texts(0x25, 0x1A), type, id);
    EXPECT_EQ(std::string(in.position - name_length, in.position), "my_name");
    EXPECT_TRUE(in.field_sep());
    EXPECT_EQ(in.remaining, 1);
    EXPECT_FALSE(in.pop_one()); // the zero behind it
    EXPECT_VALUES("false false false false", in.field_sep(), in.struct_start(), in.struct_finish(), in.pop_one());
    EXPECT_VALUES("true true", Receive_buffer("{", 0).struct_start(), Receive_buffer("}", 0).struct_finish());
    EXPECT_TRUE(Receive_buffer(",", 0).field_sep()) << "the byte alone decides";
    for (const char* bad : {"25-1a:x", "25:", ":1a:x", "zz:1:x", ""}) {
        Receive_buffer broken(bad, static_cast<int>(strlen(bad)));
        EXPECT_VALUES("false false", broken.pop_item(type, id, name_length), broken.position != bad) << bad;
    }
}

TEST(Structure, Is_read_from_untrusted_text) {
    struct Names : Structure_visitor {
        bool item(const Described_item& i) override {
            text += std::string(static_cast<size_t>(i.depth), '>') +
                    std::string(i.name, static_cast<size_t>(i.name_length)) + (i.container ? "{ " : " ");
            return text != "stop ";
        }
        std::string text;
    };
    std::string nested;
    for (int i = 0; i < 65; ++i) nested += "1:1:{";
    const struct {
        std::string text;
        Structure_result result;
        const char* names;
    } table[] = {{"1:1:a{1:2:b.c{},1:3:c{4:4:d e}}", structure_complete, "a{ >b.c{ >c{ >>d e "},
                 {"4:1:stop,", structure_stopped, "stop "},
                 {"4:1:x,4:2:y", structure_malformed, "x "},
                 {"1:1:a{4:2:b,4:c", structure_cut, "a{ >b "},
                 {"1:1:a{4:2:b,zz", structure_malformed, "a{ >b "},
                 {"1:1:a}", structure_malformed, "a "},
                 {"", structure_cut, ""},
                 {nested, structure_malformed, nullptr}};
    for (const auto& row : table) {
        const auto exact = exact_copy(row.text); // no zero behind it
        const char* const text = reinterpret_cast<char*>(exact.get());
        Names names;
        EXPECT_EQ(read_structure(text, static_cast<int>(row.text.size()), names), row.result) << row.text;
        EXPECT_EQ(row.names ? names.text : "", row.names ? row.names : "") << row.text;
    }
}

} // namespace
