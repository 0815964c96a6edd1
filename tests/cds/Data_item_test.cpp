// SPDX-License-Identifier: MIT
#include "glue/cds/CDS_remote.h"
#include "glue/cds/Data_item.h"
#include "glue/cds/Data_item_text.h"
#include "support/capture.h"
#include "support/child.h"
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
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

TEST(Identifiers, Count_up_from_1_until_they_are_exhausted) {
    const Child_result child = run_child([] {
        const Item first, second, fixed(7);
        if (first.id != 1 || second.id != 2 || fixed.id != 7 || Data_item::lookup_max_id != 3) exit(1);
        Data_item::lookup_max_id = 65533;
        const Item last, spent, shared, shared_too;
        if (last.id != 65533 || spent.id != 65534 || shared.id != 65535 || shared_too.id != 65535) exit(2);
    });
    EXPECT_EQ(child.status, 0);
    EXPECT_EQ(child.err, "Lookup IDs are exhausted, time to move to 24 bit IDs\n");
}

TEST(Type_byte, Holds_shape_and_type_of_any_byte) {
    EXPECT_EQ(Data_item::get_type_byte(Data_item::class_value, Data_item::item_int16), 0x08);
    EXPECT_EQ(Data_item::get_type_byte(Data_item::class_array, Data_item::item_uint16), 0x25);
    for (int byte = 0; byte < 256; ++byte) {
        Data_item::class_type_t shape;
        Data_item::item_type_t type;
        EXPECT_TRUE(Data_item::decode_type_byte(shape, type, static_cast<unsigned char>(byte)));
        EXPECT_EQ(shape, byte / 32);
        EXPECT_EQ(type, byte % 32);
    }
}

TEST(Walk, Begins_at_the_start_identifier_and_keeps_the_first_place_to_resume_at) {
    const Item seven(7), nine(9);
    unsigned short start = 9;
    EXPECT_FALSE(seven.serial_action_started(start));
    EXPECT_TRUE(nine.serial_action_started(start));
    EXPECT_TRUE(seven.serial_action_started(start));
    EXPECT_EQ(start, 0);

    Data_item::Serial_ret result = nine.serial_check(false);
    EXPECT_TRUE(result.fail() && result.stop() == 9);
    result.sync_next(nullptr);
    EXPECT_FALSE(result.next_set());
    result.sync_next(&seven);
    result.sync_next(&nine);
    EXPECT_EQ(result.next(), 7);
}

TEST(Item, Without_a_structure_description_ends_the_process) {
    const Child_result child = run_child([] {
        Item item(1);
        CDS::Remote::Send_buffer none(nullptr, 0, 0);
        item.serialise_structure(none, 0);
    });
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_EQ(child.err, "WHY CALL ME\n");
}

template <class T>
std::string text_of(T value) {
    char text[32];
    const int n = Data_item_stringify<T>(&value).to_string(text, sizeof text);
    EXPECT_EQ(n, static_cast<int>(strlen(text)));
    return text;
}

TEST(To_text, Follows_the_type) {
    EXPECT_EQ(text_of<char>('A'), "65");
    EXPECT_EQ(text_of<char>(static_cast<char>(200)), "200");
    EXPECT_EQ(text_of(true), "true");
    EXPECT_EQ(text_of(false), "false");
    EXPECT_EQ(text_of(0.1f), "0.1");
    EXPECT_EQ(text_of(1.5), "1.5");
    EXPECT_EQ(text_of(-1LL), "-1");
    EXPECT_EQ(text_of(~0ULL), "18446744073709551615");
    EXPECT_EQ(text_of<unsigned char>(255), "255");
    EXPECT_EQ(text_of<signed char>(-128), "-128");
    EXPECT_EQ(text_of<long>(-2147483647 - 1), "-2147483648");
    EXPECT_EQ(text_of<unsigned long>(4294967295u), "4294967295");

    char cut[3] = {'x', 'x', 'x'};
    const int number = 12345;
    EXPECT_EQ(Data_item_stringify<int>(&number).to_string(cut, 3), 5);
    EXPECT_STREQ(cut, "12");
    EXPECT_EQ(Data_item_stringify<int>(&number).to_string(cut, 0), 0);
}

/// A text, what becomes of a target that holds 5, and how many characters are read (-1: null).
template <class T>
struct Reading {
    const char* text;
    T value;
    int consumed;
};

template <class T>
void expect_readings(const std::vector<Reading<T>>& table) {
    for (const Reading<T>& r : table) {
        T value = T(5);
        const char* const end = Data_item_destringify<T>(&value).from_string(r.text);
        EXPECT_EQ(value, r.value) << r.text;
        EXPECT_EQ(end ? end - r.text : -1, r.consumed) << r.text;
    }
}

TEST(From_text, Reads_what_the_type_takes) {
    expect_readings<unsigned short>({{"70000", 4464, 5},
                                     {"0x10", 16, 4},
                                     {"017", 15, 3},
                                     {"zz", 0, -1},
                                     {" 12abc", 12, 3},
                                     {"4294967297", 65535, 10}});
    expect_readings<int>({{"3000000000", 2147483647, 10}, {"-3000000000", -2147483647 - 1, 11}, {"-7", -7, 2}});
    expect_readings<unsigned int>({{"-1", 4294967295u, 2}, {"99999999999", 4294967295u, 11}});
    expect_readings<signed char>({{"200", -56, 3}});
    expect_readings<char>({{"65", 'A', 2}});
    expect_readings<long long>({{"-9000000000", -9000000000LL, 11}});
    expect_readings<unsigned long long>({{"0xFFFFFFFFFF", 0xFFFFFFFFFFULL, 12}});
    expect_readings<double>({{"2.5e3x", 2500, 5}, {"x", 0, -1}});
    expect_readings<float>({{"0.1", 0.1f, 3}});
}

TEST(From_text, Takes_one_letter_of_a_bool) {
    struct {
        const char* text;
        bool before, after;
        int consumed;
    } const table[] = {{"yes", false, true, 1}, {"True", false, true, 1}, {"no", true, false, 1}, {"F", true, false, 1},
                       {"2", false, true, 1},   {"0", true, false, 1},    {"?", true, true, -1},  {"", true, true, -1}};
    for (const auto& r : table) {
        bool value = r.before;
        const char* const end = Data_item_destringify<bool>(&value).from_string(r.text);
        EXPECT_EQ(value, r.after) << r.text;
        EXPECT_EQ(end ? end - r.text : -1, r.consumed) << r.text;
    }
}

TEST(Char_array, Is_read_from_brackets_and_filled_with_zeros) {
    struct {
        const char* text;
        bool good;
        const char* array; ///< 4 characters, '.' for zero
    } const table[] = {{"[ab]", true, "ab.."}, {"[abcd]", true, "abcd"}, {"[abcde]", false, "abcd"},
                       {"ab", false, "xxxx"},  {"[ab]c", false, "ab.."}, {"[]", true, "...."},
                       {"[ab", false, "ab.."}};
    for (const auto& r : table) {
        char array[4] = {'x', 'x', 'x', 'x'};
        const char* const end = Data_item_array_destringify<char>(array, 4).from_string(r.text);
        EXPECT_EQ(end, r.good ? r.text + strlen(r.text) : nullptr) << r.text;
        for (int i = 0; i < 4; ++i) EXPECT_EQ(array[i] ? array[i] : '.', r.array[i]) << r.text << " " << i;
    }
}

class Recorder : public Debug::Dumper {
public:
    bool start(const char* name) override { return text += std::string(name) + "(", true; }
    void end(const char*) override { text += ")"; }
    void field(const char* label, const char* value) override { text += std::string(label) + "=" + value + ";"; }
    std::string text;
};

TEST(Print, Hands_label_and_text_to_the_dumper) {
    Recorder recorder;
    const short value = -3;
    Data_item_stringify<short>(&value).print("speed", recorder);
    const auto exact = std::make_unique<char[]>(3); // no zero behind it
    memcpy(exact.get(), "abc", 3);
    Data_item_array_stringify<char>(exact.get(), 3).print("label", recorder);
    EXPECT_EQ(recorder.text, "speed=-3;label=\"abc\";");
}

} // namespace
