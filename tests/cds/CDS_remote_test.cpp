// SPDX-License-Identifier: MIT
// How values and descriptions are read and written, by the remote format and as text.
#include "glue/cds/CDS_remote.h"
#include "glue/cds/CDS_structure.h"
#include "glue/cds/CDS_value_text.h"
#include "glue/cds/Data_item_text.h"
#include "support/frame.h"
#include "support/test.h"

using namespace CDS::Remote;

namespace {

TEST(Receive_buffer, Reads_headers_and_nothing_when_it_is_short) {
    unsigned int value = 77;
    Receive_buffer cut("abc", 3), in("25:1a:my_name,", 14);
    EXPECT_VALUES(texts(false, 77, 3, 'a'), cut.pop_UINT32(value), value, cut.remaining, *cut.position);
    Data_item::item_type_t type;
    unsigned short id;
    int length = 0;
    EXPECT_VALUES(texts(true, 0x25, 0x1A, 7), in.pop_item(type, id, length), type, id, length);
    EXPECT_VALUES("true 1 false", in.field_sep(), in.remaining, in.pop_one()) << "the zero behind it";
    EXPECT_VALUES("false false", in.field_sep(), in.pop_one());
    // The byte alone decides.
    EXPECT_VALUES("true true false", Receive_buffer("{", 0).struct_start(), Receive_buffer("}", 0).struct_finish(),
                  Receive_buffer(",", 0).struct_finish());
}

TEST(Structure, Is_read_from_untrusted_text) {
    struct Names : Structure_visitor {
        bool item(const Described_item& i) override {
            text += std::string(static_cast<size_t>(i.depth), '>') +
                    std::string(i.name, static_cast<size_t>(i.name_length)) + (i.container ? "{ " : " ");
            return text != "stop ";
        }
        std::string text;
    } names;
    const auto read = [&](const std::string& text) {
        std::vector<char> exact(text.begin(), text.end()); // no zero behind it
        names.text.clear();
        return read_structure(exact.data(), static_cast<int>(text.size()), names);
    };
    const std::string whole = "1:1:a{1:2:b.c{},1:3:c{4:4:d e}}";
    EXPECT_EQ(read(whole), structure_complete);
    EXPECT_EQ(names.text, "a{ >b.c{ >c{ >>d e ");
    for (size_t n = 0; n < whole.size(); ++n)
        EXPECT_EQ(read(whole.substr(0, n)), n == 4 || n == 5 ? structure_complete : structure_cut) << n;
    std::string nested, ended;
    for (int i = 0; i < 64; ++i) nested += "1:1:{", ended += "}";
    EXPECT_VALUES(texts(structure_complete, structure_malformed), read(nested + ended), read(nested + "1:1:{"));
    EXPECT_EQ(read("4:1:stop,"), structure_stopped);
    for (const char* bad : {"4:1:x,4:2:y", "1:1:a{4:2:b,zz", "1:1:a}", "25-1a:x", ":1a:x", "4:z:x"})
        EXPECT_EQ(read(bad), structure_malformed) << bad;
}

// The settings' own text form is read by the same rules.
TEST(Value_text, Is_read_back_as_it_was_written_and_refused_otherwise) {
    using I = Data_item;
    const std::tuple<I::item_type_t, const char*, const char*> table[] = {
        {I::item_bool, "1", "true"},         {I::item_bool, "0", "false"},        {I::item_bool, "+1", "refused"},
        {I::item_char, "200", "200"},        {I::item_int16, "32768", "refused"}, {I::item_int16, "-32768", "-32768"},
        {I::item_float, "0.1", "0.1"},       {I::item_uint64, "+7", "7"},         {I::item_int16, "+-7", "refused"},
        {I::item_double, "1e300", "1e+300"}, {I::item_int8, "0X1F", "31"},        {I::item_float, "1e300", "refused"},
        {I::item_bool, "false", "false"},    {I::item_struct, "1", "refused"}};
    for (const auto& [type, text, expected] : table) {
        char bytes[8];
        Send_buffer out(bytes, 0, sizeof bytes);
        std::string again = append_text(out, type, text) ? "unread" : "refused";
        Receive_buffer in(bytes, static_cast<int>(out.position - bytes));
        EXPECT_EQ(in.remaining, again == "refused" ? 0 : value_width(type)) << text;
        pop_text(in, type, again);
        EXPECT_EQ(again, expected) << text;
    }
}

/// The values after texts were read, each with the number of characters that were.
template <class T>
std::string read(std::initializer_list<const char*> all, T before = 5) {
    std::string values;
    for (const char* text : all) {
        T value = before;
        char written[32];
        const char* const end = Data_item_destringify<T>(&value).from_string(text);
        Data_item_stringify<T>(&value).to_string(written, sizeof written);
        values += written + (end ? ":" + texts(end - text, "") : ":null ");
    }
    return values;
}

TEST(Text, Is_read_and_written_as_the_type_takes_it) {
    EXPECT_EQ(read<unsigned short>({"70000", "0x10", "017", "zz", " 12abc", "4294967297"}),
              "4464:5 16:4 15:3 0:null 12:3 65535:10 ");
    EXPECT_EQ(read<int>({"3000000000", "-3000000000"}), "2147483647:10 -2147483648:11 ");
    EXPECT_EQ(read<unsigned int>({"-1", "99999999999"}), "4294967295:2 4294967295:11 ");
    EXPECT_EQ(read<signed char>({"200"}) + read<char>({"200"}), "-56:3 200:3 ");
    EXPECT_EQ(read<long long>({"-9000000000"}), "-9000000000:11 ");
    EXPECT_EQ(read<unsigned long long>({"0xFFFFFFFFFFFFFFFF"}), "18446744073709551615:18 ");
    EXPECT_EQ(read<double>({"2.5e3x", "x"}) + read<float>({"0.1"}), "2500:5 0:null 0.1:3 ");
    EXPECT_EQ(read<bool>({"yes", "True", "2", "?", ""}, false), "true:1 true:1 true:1 false:null false:null ");
    EXPECT_EQ(read<bool>({"no", "F", "0", "?", ""}, true), "false:1 false:1 false:1 true:null true:null ");
    std::string arrays;
    for (const std::string text : {"[ab]", "[abcd]", "[abcde]", "ab", "[ab]c", "[ab"}) {
        std::string array = "xxxx";
        const char* const end = Data_item_array_destringify<char>(array.data(), 4).from_string(text.c_str());
        std::replace(array.begin(), array.end(), '\0', '.');
        arrays += array + (!end ? ":null " : end == text.c_str() + text.size() ? ":end " : ":?");
    }
    EXPECT_EQ(arrays, "ab..:end abcd:end abcd:null xxxx:null ab..:null ab..:null ");
    char cut[3] = {'x', 'x', 'x'};
    const int five_digits = 12345;
    const Data_item_stringify<int> number(&five_digits);
    EXPECT_VALUES("5 12 0", number.to_string(cut, 3), cut, number.to_string(cut, 0)) << "the length it would have";
}

TEST(Data_item, Identifiers_are_exhausted_once_and_a_structure_description_is_a_must) {
    struct Item : Data_item {
        using Data_item::Data_item;
        const char* get_name() const override { return "item"; }
        Data_item* find_data_item(const char*) override { return nullptr; }
        Data_item* find_data_item(unsigned short) override { return nullptr; }
        Serial_ret serialise(Send_buffer&, unsigned short&) override { return serial_ok(); }
        Serial_ret deserialise(Receive_buffer&, unsigned short&) override { return serial_ok(); }
    };
    const Child_result child = run_child([] {
        Item first, second, fixed(7);
        EXPECT_VALUES("1 2 7 3", first.id, second.id, fixed.id, Data_item::lookup_max_id);
        Data_item::lookup_max_id = 65533;
        const Item last, spent, shared, shared_too;
        EXPECT_VALUES("65533 65534 65535 65535", last.id, spent.id, shared.id, shared_too.id);
        Send_buffer none(nullptr, 0, 0);
        if (!testing::Test::HasFailure()) first.serialise_structure(none, 0);
    });
    EXPECT_EQ(child.signal, SIGABRT) << child.out;
    EXPECT_EQ(child.err, "Lookup IDs are exhausted, time to move to 24 bit IDs\nWHY CALL ME\n");
}

} // namespace
