// SPDX-License-Identifier: MIT
#include "glue/cds/CDS_remote.h"
#include "glue/cds/Data_item.h"
#include "glue/cds/Data_item_text.h"
#include "support/test.h"

namespace {

struct Item : Data_item {
    using Data_item::Data_item;
    const char* get_name() const override { return "item"; }
    Data_item* find_data_item(const char*) override { return nullptr; }
    Data_item* find_data_item(unsigned short) override { return nullptr; }
    Serial_ret serialise(CDS::Remote::Send_buffer&, unsigned short&) override { return serial_ok(); }
    Serial_ret deserialise(CDS::Remote::Receive_buffer&, unsigned short&) override { return serial_ok(); }
};

TEST(Data_item, Identifiers_are_exhausted_once_and_a_structure_description_is_a_must) {
    const Child_result child = run_child([] {
        Item first, second, fixed(7);
        if (first.id != 1 || second.id != 2 || fixed.id != 7 || Data_item::lookup_max_id != 3) exit(1);
        Data_item::lookup_max_id = 65533;
        const Item last, spent, shared, shared_too;
        if (last.id != 65533 || spent.id != 65534 || shared.id != 65535 || shared_too.id != 65535) exit(2);
        CDS::Remote::Send_buffer none(nullptr, 0, 0);
        first.serialise_structure(none, 0);
    });
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_EQ(child.err, "Lookup IDs are exhausted, time to move to 24 bit IDs\nWHY CALL ME\n");
}

TEST(Serial_ret, An_identifier_is_a_result) {
    const Data_item::Serial_ret stopped = static_cast<unsigned short>(12);
    EXPECT_VALUES("true 12 false", stopped.fail(), stopped.stop(), stopped.next_set());
}

template <class T>
std::string written(T value) {
    char text[32];
    EXPECT_LT(Data_item_stringify<T>(&value).to_string(text, sizeof text), 32);
    return text;
}

TEST(Text, Is_cut_to_its_buffer) {
    char cut[3] = {'x', 'x', 'x'};
    const int five_digits = 12345;
    const Data_item_stringify<int> number(&five_digits);
    EXPECT_EQ(number.to_string(cut, 3), 5);
    EXPECT_STREQ(cut, "12");
    EXPECT_EQ(number.to_string(cut, 0), 0);
}

/// The value after a text was read, and how many characters were (-1: null).
template <class T>
std::string read(const char* text, T before = 5) {
    const char* const end = Data_item_destringify<T>(&before).from_string(text);
    return written(before) + " " + std::to_string(end ? end - text : -1);
}

TEST(Text, Is_read_and_written_as_the_type_takes_it) {
    const std::pair<std::string, const char*> table[] = {
        {read<unsigned short>("70000"), "4464 5"},
        {read<unsigned short>("0x10"), "16 4"},
        {read<unsigned short>("017"), "15 3"},
        {read<unsigned short>("zz"), "0 -1"},
        {read<unsigned short>(" 12abc"), "12 3"},
        {read<unsigned short>("4294967297"), "65535 10"},
        {read<int>("3000000000"), "2147483647 10"},
        {read<int>("-3000000000"), "-2147483648 11"},
        {read<unsigned int>("-1"), "4294967295 2"},
        {read<unsigned int>("99999999999"), "4294967295 11"},
        {read<signed char>("200"), "-56 3"},
        {read<char>("200"), "200 3"},
        {read<long>("-2147483647"), "-2147483647 11"},
        {read<unsigned long>("4294967295"), "4294967295 10"},
        {read<long long>("-9000000000"), "-9000000000 11"},
        {read<unsigned long long>("0xFFFFFFFFFFFFFFFF"), "18446744073709551615 18"},
        {read<double>("2.5e3x"), "2500 5"},
        {read<double>("x"), "0 -1"},
        {read<float>("0.1"), "0.1 3"},
    };
    for (const auto& [got, expected] : table) EXPECT_EQ(got, expected);
    for (const char* text : {"yes", "True", "2"}) EXPECT_EQ(read<bool>(text, false), "true 1") << text;
    for (const char* text : {"no", "F", "0"}) EXPECT_EQ(read<bool>(text, true), "false 1") << text;
    for (const bool before : {false, true})
        for (const char* text : {"?", ""}) EXPECT_EQ(read(text, before), before ? "true -1" : "false -1");
}

TEST(Text, A_char_array_is_read_from_brackets_and_filled_with_zeros) {
    const struct {
        const char* text;
        bool good;
        const char* array; ///< '.' for zero
    } table[] = {{"[ab]", true, "ab.."}, {"[abcd]", true, "abcd"}, {"[abcde]", false, "abcd"},
                 {"ab", false, "xxxx"},  {"[ab]c", false, "ab.."}, {"[ab", false, "ab.."}};
    for (const auto& r : table) {
        std::string array = "xxxx";
        const char* const end = Data_item_array_destringify<char>(array.data(), 4).from_string(r.text);
        EXPECT_EQ(end, r.good ? r.text + strlen(r.text) : nullptr) << r.text;
        std::replace(array.begin(), array.end(), '\0', '.');
        EXPECT_EQ(array, r.array) << r.text;
    }
}

} // namespace
