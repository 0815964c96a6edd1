// SPDX-License-Identifier: MIT
// Items of a block, and what they travel in to other machines: streams of values, structures, texts.
#include "cds/Block_fixture.h"
#include "glue/cds/CDS_remote.h"
#include "glue/cds/CDS_structure.h"
#include "glue/cds/CDS_value_text.h"
#include "glue/cds/Data_item_text.h"
#include "support/test.h"
#include "util/Debug_text_dumper.h"
#include <cmath>

using namespace CDS::Remote;

namespace {

/// What an item writes through a page of a stream that skips so many bytes.
template <class Write>
std::string sent(Write write, int skip = 0, int page = 512) {
    char bytes[512];
    Send_buffer out(bytes, skip, page);
    write(out);
    return std::string(bytes, out.position);
}

struct Lookup : testing::Test, Described_block {
    Lookup() { head.lock(); }
    ~Lookup() override { head.unlock(); }

    static std::string structure(CDS::Lookup_item& item, int depth) {
        return sent([&](auto& out) { item.serialise_structure(out, depth); });
    }
    std::string values(unsigned short start = 0) {
        return sent([&](auto& out) { EXPECT_TRUE(items.root.serialise(out, start).ok()); });
    }
    /// What becomes of a read: how many bytes are left, or where it stopped and is to go on; and who is woken.
    std::string read(CDS::Lookup_item& item, const std::string& bytes) {
        unsigned short start = 0;
        Receive_buffer in(bytes.data(), static_cast<int>(bytes.size()));
        const Data_item::Serial_ret r = item.deserialise(in, start);
        return (r.ok() ? texts(in.remaining, "left") : texts(r.stop(), "then", r.next())) + " " + inbox.targets();
    }
};

TEST_F(Lookup, Finds_items_by_path_and_by_identifier) {
    std::string found;
    for (const char* path :
         {"", "engine", "engine.speed", "on", "engine.", "engine.spee", "engine.speedo", "speed", "engine..speed"}) {
        const Data_item* const item = items.root.find_data_item(path);
        found += item ? texts(item->id, "") : "- ";
    }
    EXPECT_EQ(found, "1 2 3 9 2 - - - - ");
    EXPECT_EQ(items.root.find_item("engine/speed", '/'), &items.speed);
    EXPECT_EQ(items.root.find_item("engine", 0), &items.engine) << "no separator: one name";
    Capture err(stderr);
    EXPECT_VALUES("null Base find item, why? speed,3,x,.\n", items.root.find_item("engine.speed.x", '.'), err.text());
    EXPECT_VALUES(texts(static_cast<Data_item*>(&items.root), &items.on, &items.load, nullptr),
                  items.root.find_data_item(1), items.root.find_item(9), items.engine.find_item(5),
                  items.engine.find_item(9));
}

TEST_F(Lookup, Describes_the_structure_to_a_depth) {
    const std::string engine = "1:2:engine", inner = "{8:3:speed,4:4:mode,a:5:load}",
                      rest = ",25:6:levels,23:7:label,9:8:counter,2:9:on}";
    EXPECT_EQ(structure(items.engine, 0), engine);
    EXPECT_EQ(structure(items.root, 1), "1:1:machine{" + engine + rest);
    for (const int everything : {2, 255, 1000, -1})
        EXPECT_EQ(structure(items.root, everything), "1:1:machine{" + engine + inner + rest);
    const std::string long_name(300, 'n');
    CDS::Struct empty(items.root, "none", block); // of no items
    EXPECT_EQ(structure(empty, 1), "1:a:none{}");
    empty.set_name(long_name.c_str());
    EXPECT_EQ(structure(empty, 0).size(), 255u);
}

TEST_F(Lookup, Reading_signals_just_what_changed_and_takes_no_more_elements_than_there_are) {
    CDS::Access_base(&head, 0, sizeof(Block)).reg(&inbox.waiter, 1);
    CDS::Access_base(&head, offsetof(Block, engine.speed), 2).reg(&inbox.waiter, 2);
    CDS::Access_base(&head, offsetof(Block, levels) + 6, 2).reg(&inbox.waiter, 3);
    std::string bytes = values();
    EXPECT_EQ(read(items.root, bytes), "0 left ");
    bytes[0] = 101;
    bytes[29] = 0;
    EXPECT_VALUES("0 left 121 101", read(items.root, bytes), block.engine.speed);
    EXPECT_VALUES("0 left 13 9 2 3", read(items.levels, {"\2\x09\0\2\0", 5}), block.levels[0], block.levels[1],
                  block.levels[2]);
    EXPECT_EQ(read(items.levels, {"\5\x09\0\x08\0\7\0\6\0\5\0", 11}), "2 left 13") << "one event for the whole array";
    EXPECT_VALUES("9 8 7 6", block.levels[0], block.levels[1], block.levels[2], block.levels[3]);
    const auto load = [&](float value) { return read(items.load, {reinterpret_cast<char*>(&value), 4}); };
    EXPECT_VALUES("0 left 1 0 left  false", load(0.0f), load(-0.0f), std::signbit(block.engine.load))
        << "equal: not stored";
    EXPECT_VALUES("0 left 1 0 left 1", load(NAN), load(NAN)) << "differs from itself";
    EXPECT_EQ(items.told, "") << "a remote write wakes diners, not listeners";
}

TEST_F(Lookup, Pages_join_to_the_whole_stream_and_a_walk_tells_where_it_stopped) {
    const auto write = [&](Send_buffer& out) {
        unsigned short start = 0;
        items.root.serialise_structure(out, 9);
        items.root.serialise(out, start);
    };
    bool joined_later = true;
    std::optional<CDS::Value<bool>> late;
    const std::string before = values();
    EXPECT_VALUES(texts(before.substr(3), before.substr(7), ""), values(5), values(6), values(0xFFF0)) << "not met";
    EXPECT_VALUES("3 then 4  6 then 7  9 then 0 ", read(items.root, before.substr(0, 1)),
                  read(items.root, before.substr(0, 10)), read(items.root, before.substr(0, 29)));
    for (const bool grown : {false, true}) { // a struct inside, which the root must not miss
        if (grown) late.emplace(items.engine, "late", joined_later);
        const std::string now = before.substr(0, 7) + (grown ? "\1" : "") + before.substr(7);
        for (const int page : {1, 2, 3, 5, 100}) {
            std::string all;
            for (std::string next; !(next = sent(write, static_cast<int>(all.size()), page)).empty();) all += next;
            EXPECT_EQ(all, structure(items.root, 9) + now) << page;
        }
    }
    const auto numbers = [](Send_buffer& out) { EXPECT_EQ(out.append_UINT64(1) + out.append_UINT16(1), 10); };
    EXPECT_EQ(sent(numbers, 3, 1), std::string(1, '\0')) << "the width, wherever the bytes go";
    for (const int room : {8, 0}) { // there is something to complain of only where there is room
        const std::string said = debug_text([&] { sent([](auto& out) { out.str_append(""); }, -1, room); });
        EXPECT_EQ(said, room ? "\n\nNegative offset!!\n" : "");
    }
}

TEST_F(Lookup, Change_scan_tells_the_listeners_of_changed_bytes) {
    std::mt19937 random(20261121);
    std::unique_ptr<CDS::Value<short>> late;
    for (int round = 0; round < 600; ++round) {
        if (round == 200) late = std::make_unique<CDS::Value<short>>(items.root, "late", block.engine.speed);
        if (round == 400) items.root.finish(); // now known to stand out of order
        Block old = block;
        auto* const bytes = reinterpret_cast<unsigned char*>(&old);
        // The copies begin and end anywhere.
        const size_t from = random() % sizeof old, length = random() % (sizeof old - from + 1);
        for (unsigned i = length ? random() % 4 : 0; i > 0; --i) bytes[from + random() % length] ^= 1; // gaps too
        const auto differs = [&](const auto& member) {
            const auto* const now = reinterpret_cast<const unsigned char*>(&member);
            return memcmp(now, bytes + (now - reinterpret_cast<const unsigned char*>(&block)), sizeof member) != 0;
        };
        const Engine& engine = block.engine;
        std::string expected = differs(engine.speed) ? "speed1 " : "";
        if (!expected.empty() || differs(engine.mode) || differs(engine.load)) expected += "engine1 ";
        if (differs(block.label)) expected += "label1 ";
        if (differs(block.on)) expected += "on1 ";
        items.told.clear();
        head.event_signal(reinterpret_cast<char*>(&block) + from, bytes + from, static_cast<int>(from),
                          static_cast<int>(length), nullptr);
        ASSERT_EQ(items.told, expected) << round;
    }
    const Block elsewhere = block, old{};
    EXPECT_FALSE(items.root.signal_update(&elsewhere, &old, sizeof old)) << "not the live block";
    EXPECT_FALSE(items.label.signal_update(&block, &old, offsetof(Block, label))) << "up to it";
    EXPECT_TRUE(items.label.signal_update(&block, &old, offsetof(Block, label) + 1));
}

TEST_F(Lookup, Change_scan_finds_a_difference_anywhere_by_the_addresses_that_items_have_now) {
    struct Movable : CDS::Lookup_basic<short> {
        explicit Movable(CDS::Lookup_struct& p) : Lookup_basic(p) { p.add_item(*this); }
        const void* data_address() const override { return value; }
        unsigned int data_size() const override { return sizeof(short); }
        using Lookup_basic::value;
    };
    short now[2500] = {}, old[2500] = {};
    CDS::Root root(head, "root", now);
    Movable movable(root);
    Told told("movable", items.told);
    movable.update_listener = &told;
    movable.value = now;
    root.finish(); // knows where it is, which does not last
    for (int at = 1; at < 2500; old[at] = 0, at += 3) {
        old[at] = 1;
        items.told.clear();
        for (const int place : {at, at - 1}) {
            movable.value = now + place;
            ASSERT_EQ(root.signal_update(now, old, sizeof now), place == at) << at;
        }
        ASSERT_EQ(items.told, "movable1 ");
    }
}

TEST(Items, Travel_as_the_base_type_of_theirs) {
    std::string codes;
#define KAV_CODE(T, ...) codes += texts(CDS::Lookup_basic<T>::get_base_type(), sizeof(Base_type_of<T>::As), "");
    KAV_DATA_ITEM_TYPES(KAV_CODE)
    EXPECT_EQ(codes, "2 1 3 1 4 1 5 2 6 4 7 1 8 2 9 4 10 4 11 8 15 8 16 8 6 4 9 4 ");
}

TEST_F(Lookup, Prints_values_but_none_of_what_the_dumper_refuses) {
    struct Choosy : Debug::Text_dumper {
        using Text_dumper::Text_dumper;
        bool start(const char* name) override { return name != refused && Text_dumper::start(name); }
        std::string refused = "engine";
    } dumper(stdout);
    Capture out(stdout);
    memcpy(block.label, "12345678", 8); // no zero behind it
    items.root._print(dumper);
    items.engine._print(dumper);
    dumper.refused = "levels";
    items.levels._print(dumper);
    items.engine._print(dumper);
    EXPECT_EQ(out.text(), "machine:\n  levels:\n    0: 1\n    1: 2\n    2: 3\n    3: 4\n  label: \"12345678\"\n"
                          "  counter: 7\n  on: true\nengine:\n  speed: 100\n  mode: 2\n  load: 0.5\n");
}

TEST(Numbers_as_names, Stay_where_they_are) {
    const char* const three = CDS::get_number_as_name(3);
    EXPECT_VALUES("3 5000 true", three, CDS::get_number_as_name(5000), CDS::get_number_as_name(3) == three);
    const std::string err = run_child([] { CDS::get_number_as_name(~0u); }).err;
    EXPECT_NE(err.find("glue/cds/CDSLookup:1: "), std::string::npos) << err;
    EXPECT_NE(err.find("`names'"), std::string::npos);
}

TEST(Receive_buffer, Reads_headers_and_nothing_when_it_is_short) {
    unsigned int value = 77;
    Receive_buffer cut("abc", 3), in("25:1a:my_name,", 14);
    EXPECT_VALUES("false 77 3 97", cut.pop_UINT32(value), value, cut.remaining, *cut.position);
    Data_item::item_type_t type;
    unsigned short id;
    int length = 0;
    EXPECT_VALUES(texts(true, 0x25, 0x1A, 7), in.pop_item(type, id, length), type, id, length);
    // The byte alone decides, and behind the last one is a zero.
    EXPECT_VALUES("true 1 false false false", in.field_sep(), in.remaining, in.pop_one(), in.field_sep(), in.pop_one());
    EXPECT_VALUES("true true", Receive_buffer("{", 0).struct_start(), Receive_buffer("}", 0).struct_finish());
    EXPECT_FALSE(Receive_buffer(",", 0).struct_finish());
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

/// A value after a text was read as far as it goes, and the number of characters that were.
std::string read(Data_item::item_type_t type, const std::string& text, uint64_t value) {
    char written[32];
    const char* const end = Value_type(type).from_string(&value, text.c_str());
    Value_type(type).to_string(Value_type(type).get(&value), written, sizeof written);
    return written + (end ? ":" + std::to_string(end - text.c_str()) : ":null");
}

// The settings' own text form is read by the first of the two rules, too. By the other, "?" leaves a bool as it was.
TEST(Text, Is_a_value_as_a_whole_for_other_machines_and_as_far_as_it_goes_elsewhere) {
    using I = Data_item;
    // A text, what other machines get, and what a reader makes of it that takes what it can.
    const std::pair<I::item_type_t, std::vector<std::string>> table[] = {
        {I::item_bool,
         {"1|true|true:1", "0|false|false:1", "+1|refused|true:2", "false|false|false:1", "yes|refused|true:1",
          "True|refused|true:1", "2|refused|true:1", "no|refused|false:1", "?|refused|false:null true:null",
          "|refused|false:null true:null"}},
        {I::item_char, {"200|200|200:3"}},
        {I::item_int8, {"200|refused|-56:3", "0X1F|31|31:4"}},
        {I::item_int16, {"32768|refused|-32768:5", "-32768|-32768|-32768:6", "+-7|refused|0:null"}},
        {I::item_uint16, {"017|17|15:3", " 12abc|refused|12:3", "4294967297|refused|65535:10"}},
        {I::item_int32, {"3000000000|refused|2147483647:10"}},
        {I::item_uint32, {"-1|refused|4294967295:2"}},
        {I::item_int64, {"-9000000000|-9000000000|-9000000000:11"}},
        {I::item_uint64, {"0xFFFFFFFFFFFFFFFF|18446744073709551615|18446744073709551615:18", "+7|7|7:2"}},
        {I::item_float, {"0.1|0.1|0.1:3", "1e300|refused|inf:5"}},
        {I::item_double, {"1e300|1e+300|1e+300:5", "2.5e3x|refused|2500:5"}}};
    for (const auto& [type, rows] : table)
        for (const std::string& row : rows) {
            const std::string text = row.substr(0, row.find('|'));
            char bytes[8];
            Send_buffer out(bytes, 0, sizeof bytes);
            std::string again = append_text(out, type, text) ? "unread" : "refused";
            Receive_buffer in(bytes, out.position - bytes);
            EXPECT_EQ(in.remaining, again == "refused" ? 0 : value_width(type)) << text;
            pop_text(in, type, again);
            const std::string of_0 = read(type, text, 0), of_5 = read(type, text, 5);
            EXPECT_EQ(text + "|" + again + "|" + (of_0 == of_5 ? of_0 : of_0 + " " + of_5), row);
        }
    char byte = 1;
    std::string text = "1";
    Send_buffer out(&byte, 0, 1);
    Receive_buffer in(&byte, 1);
    EXPECT_VALUES("false false 1", append_text(out, I::item_struct, text), pop_text(in, I::item_struct, text), text);
    std::string arrays;
    for (const std::string text : {"[ab]", "[abcd]", "[abcde]", "ab", "[ab]c", "[ab"}) {
        std::string array = "xxxx";
        const char* const end = Data_item_array_destringify<char>(array.data(), 4).from_string(text.c_str());
        std::replace(array.begin(), array.end(), '\0', '.');
        arrays += array + (!end ? ":null " : end == text.c_str() + text.size() ? ":end " : ":?");
    }
    EXPECT_EQ(arrays, "ab..:end abcd:end abcd:null xxxx:null ab..:null ab..:null ");
    char cut[3] = {'x', 'x', 'x'};
    int five_digits;
    Data_item_destringify<int>(&five_digits).from_string("12345");
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
        Data_item::lookup_max_id = 1;
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
