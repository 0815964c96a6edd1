// SPDX-License-Identifier: MIT
#include "cds/Block_fixture.h"
#include "glue/cds/CDS_remote.h"
#include "support/test.h"
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

struct Lookup : testing::Test {
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
    const unsigned short first_id = Data_item::lookup_max_id = 1; ///< root 1, engine 2, and so on to on 9
    module_man modules;
    Inbox inbox{modules}; // outlives its registrations
    CDS::Head head{&modules, 0};
    Block block{{100, 2, 0.5f}, {1, 2, 3, 4}, "abc", 7, true};
    Block_items items{head, block};
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
    EXPECT_VALUES("true true", items.root.find_data_item(1) == &items.root, items.root.find_data_item(9) == &items.on);
    EXPECT_VALUES(texts(&items.load, nullptr), items.engine.find_item(5), items.engine.find_item(9));
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

TEST_F(Lookup, A_walk_begins_at_any_item_and_tells_where_it_stopped) {
    const std::string all = values();
    EXPECT_VALUES(texts(all.substr(3), all.substr(7), ""), values(5), values(6), values(0xFFF0)) << "not met";
    for (const auto& [length, end] :
         {std::pair{1, "3 then 4 "}, {6, "5 then 6 "}, {10, "6 then 7 "}, {29, "9 then 0 "}})
        EXPECT_EQ(read(items.root, all.substr(0, static_cast<size_t>(length))), end) << length;
}

TEST_F(Lookup, Pages_join_to_the_whole_stream) {
    const auto write = [&](Send_buffer& out) {
        unsigned short start = 0;
        items.root.serialise_structure(out, 9);
        items.root.serialise(out, start);
    };
    bool joined_later = true;
    std::optional<CDS::Value<bool>> late;
    const std::string before = values();
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

TEST(Compare, Finds_the_first_difference) {
    unsigned char now[5000] = {}, before[5000] = {};
    for (int at = 0; at < 5000; before[at] = 0, at += 7) {
        before[at] = 1;
        const CDS::Compare compare(now, before, sizeof now);
        EXPECT_VALUES(texts(false, at), compare.done, compare.first_diff);
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

TEST_F(Lookup, Change_scan_goes_by_the_addresses_that_items_have_now) {
    struct Movable : CDS::Lookup_basic<short> {
        explicit Movable(CDS::Lookup_struct& p) : Lookup_basic(p) { p.add_item(*this); }
        const void* data_address() const override { return ++asked, value; }
        unsigned int data_size() const override { return sizeof(short); }
        using Lookup_basic::value;
        mutable int asked = 0;
    };
    short now[] = {1, 2, 3, 4}, old[] = {1, 2, 0, 4};
    CDS::Root root(head, "root", now);
    Movable movable(root);
    root.finish();
    EXPECT_EQ(movable.asked, 0) << "it has no place yet";
    movable.value = now + 1;
    root.finish();
    movable.value = now + 2;
    Told told("movable", items.told);
    movable.update_listener = &told;
    EXPECT_VALUES("true movable1 ", root.signal_update(now, old, sizeof now), items.told);
}

TEST(Items, Travel_as_the_base_type_of_theirs) {
    std::string codes;
#define KAV_CODE(T, ...) codes += texts(CDS::Lookup_basic<T>::get_base_type(), sizeof(Base_type_of<T>::As), "");
    KAV_DATA_ITEM_TYPES(KAV_CODE)
    EXPECT_EQ(codes, "2 1 3 1 4 1 5 2 6 4 7 1 8 2 9 4 10 4 11 8 15 8 16 8 6 4 9 4 ");
}

TEST_F(Lookup, Prints_values) {
    struct : Debug::Dumper {
        bool start(const char* name) override { return (text += std::string(name) + "("), accepts; }
        void end(const char* name) override { text += std::string(")") + name + ";"; }
        void field(const char* label, const char* value) override { text += texts(label, value) + ";"; }
        bool accepts = false;
        std::string text;
    } dumper;
    items.root._print(dumper);
    dumper.accepts = true;
    memcpy(block.label, "12345678", 8); // no zero behind it
    items.root._print(dumper);
    EXPECT_EQ(dumper.text, "machine(machine(engine(speed 100;mode 2;load 0.5;)engine;levels(0 1;1 2;2 3;3 4;)levels;"
                           "label \"12345678\";counter 7;on true;)machine;");
}

TEST(Numbers_as_names, Stay_where_they_are) {
    const char* const three = CDS::get_number_as_name(3);
    EXPECT_VALUES("3 5000 true", three, CDS::get_number_as_name(5000), CDS::get_number_as_name(3) == three);
    const std::string err = run_child([] { CDS::get_number_as_name(~0u); }).err;
    EXPECT_NE(err.find("glue/cds/CDSLookup:1: "), std::string::npos) << err;
    EXPECT_NE(err.find("`names'"), std::string::npos);
}

} // namespace
