// SPDX-License-Identifier: MIT
#include "glue/cds/CDS_remote.h"
#include "glue/cds/Data_item.h"
#include "glue/cds/Data_item_text.h"
#include "support/child.h"
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <vector>

namespace {

class Item : public Data_item {
public:
    Item() = default;
    explicit Item(unsigned short fixed) : Data_item(fixed) {}
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

template <class T>
std::string text_of(T value) {
    char text[32];
    EXPECT_LT(Data_item_stringify<T>(&value).to_string(text, sizeof text), 32);
    return text;
}

TEST(Text, Follows_the_type) {
    EXPECT_EQ(text_of(static_cast<char>(200)), "200");
    EXPECT_EQ(text_of(true), "true");
    EXPECT_EQ(text_of(0.1f), "0.1");
    EXPECT_EQ(text_of(-1LL), "-1");
    EXPECT_EQ(text_of(~0ULL), "18446744073709551615");
    EXPECT_EQ(text_of<signed char>(-128), "-128");
    EXPECT_EQ(text_of(-2147483647L), "-2147483647");
    EXPECT_EQ(text_of(4294967295UL), "4294967295");
    char cut[3] = {'x', 'x', 'x'};
    const int number = 12345;
    EXPECT_EQ(Data_item_stringify<int>(&number).to_string(cut, 3), 5);
    EXPECT_STREQ(cut, "12");
    EXPECT_EQ(Data_item_stringify<int>(&number).to_string(cut, 0), 0);
}

/// A text, what becomes of the target, and how many characters are read (-1: null).
template <class T>
struct Reading {
    const char* text;
    T value;
    int consumed;
};

template <class T>
void expect_readings(T before, const std::vector<Reading<T>>& table) {
    for (const Reading<T>& r : table) {
        T value = before;
        const char* const end = Data_item_destringify<T>(&value).from_string(r.text);
        EXPECT_EQ(value, r.value) << r.text;
        EXPECT_EQ(end ? end - r.text : -1, r.consumed) << r.text;
    }
}

TEST(Text, Is_read_as_the_type_takes_it) {
    expect_readings<unsigned short>(5, {{"70000", 4464, 5},
                                        {"0x10", 16, 4},
                                        {"017", 15, 3},
                                        {"zz", 0, -1},
                                        {" 12abc", 12, 3},
                                        {"4294967297", 65535, 10}});
    expect_readings<int>(5, {{"3000000000", 2147483647, 10}, {"-3000000000", -2147483647 - 1, 11}});
    expect_readings<unsigned int>(5, {{"-1", 4294967295u, 2}, {"99999999999", 4294967295u, 11}});
    expect_readings<signed char>(5, {{"200", -56, 3}});
    expect_readings<char>(5, {{"65", 'A', 2}});
    expect_readings<long long>(5, {{"-9000000000", -9000000000LL, 11}});
    expect_readings<unsigned long long>(5, {{"0xFFFFFFFFFF", 0xFFFFFFFFFFULL, 12}});
    expect_readings<double>(5, {{"2.5e3x", 2500, 5}, {"x", 0, -1}});
    expect_readings<float>(5, {{"0.1", 0.1f, 3}});
    expect_readings<bool>(false, {{"yes", true, 1}, {"True", true, 1}, {"2", true, 1}, {"?", false, -1}});
    expect_readings<bool>(true, {{"no", false, 1}, {"F", false, 1}, {"0", false, 1}, {"?", true, -1}, {"", true, -1}});
}

TEST(Text, A_char_array_is_read_from_brackets_and_filled_with_zeros) {
    struct {
        const char* text;
        bool good;
        const char* array; ///< 4 characters, '.' for zero
    } const table[] = {{"[ab]", true, "ab.."}, {"[abcd]", true, "abcd"}, {"[abcde]", false, "abcd"},
                       {"ab", false, "xxxx"},  {"[ab]c", false, "ab.."}, {"[ab", false, "ab.."}};
    for (const auto& r : table) {
        char array[4] = {'x', 'x', 'x', 'x'};
        const char* const end = Data_item_array_destringify<char>(array, 4).from_string(r.text);
        EXPECT_EQ(end, r.good ? r.text + strlen(r.text) : nullptr) << r.text;
        for (int i = 0; i < 4; ++i) EXPECT_EQ(array[i] ? array[i] : '.', r.array[i]) << r.text << " " << i;
    }
}

} // namespace
