// SPDX-License-Identifier: MIT
#include "cds/Block_fixture.h"
#include "glue/cds/CDS_remote.h"
#include "support/capture.h"
#include "support/child.h"
#include <cmath>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <random>

namespace {

class Lookup : public testing::Test {
protected:
    Lookup() { head.lock(); }
    ~Lookup() override { head.unlock(); }

    std::string structure(CDS::Lookup_item& item, int depth) {
        char text[512];
        CDS::Remote::Send_buffer out(text, 0, sizeof text);
        item.serialise_structure(out, depth);
        return std::string(text, out.position);
    }
    std::string values(unsigned short start = 0) {
        char bytes[128];
        CDS::Remote::Send_buffer out(bytes, 0, sizeof bytes);
        EXPECT_TRUE(items.root.serialise(out, start).ok());
        return std::string(bytes, out.position);
    }

    module_man modules;
    CDS::Head head{&modules, 0};
    Block block{{100, 2, 0.5f}, {1, 2, 3, 4}, "abc", 7, true};
    Block_items items{head, block};
    Inbox inbox{modules};
};

TEST_F(Lookup, Finds_items_by_path) {
    Block_items& i = items;
    const struct {
        const char* path;
        CDS::Lookup_item* found;
    } table[] = {{"", &i.root},
                 {"engine", &i.engine},
                 {"engine.speed", &i.speed},
                 {"engine.spee", nullptr},
                 {"engine.speedo", nullptr},
                 {"speed", nullptr},
                 {"on", &i.on},
                 {"engine.", &i.engine},
                 {".engine", nullptr},
                 {"engine..speed", nullptr}};
    for (const auto& row : table) {
        EXPECT_EQ(i.root.find_item(row.path, '.'), row.found) << row.path;
        EXPECT_EQ(i.root.find_data_item(row.path), row.found) << row.path;
    }
    EXPECT_EQ(i.root.find_item("engine/speed", '/'), &i.speed);
    EXPECT_EQ(i.root.find_item("engine", 0), &i.engine) << "no separator: one name";
    EXPECT_EQ(i.speed.find_item("", '.'), &i.speed);
    Capture err(stderr);
    EXPECT_EQ(i.root.find_item("engine.speed.x", '.'), nullptr);
    EXPECT_EQ(err.text(), "Base find item, why? speed," + std::to_string(i.speed.id) + ",x,.\n");
}

TEST_F(Lookup, Finds_items_by_identifier_within_the_range) {
    for (CDS::Lookup_item* item :
         std::initializer_list<CDS::Lookup_item*>{&items.root, &items.engine, &items.load, &items.on})
        EXPECT_EQ(items.root.find_item(item->id), item);
    unsigned short min, max;
    items.engine.get_minmax(min, max);
    EXPECT_EQ(min, items.engine.id);
    EXPECT_EQ(max, items.load.id);
    EXPECT_EQ(items.engine.find_item(items.on.id), nullptr);
    EXPECT_EQ(items.root.find_item(static_cast<unsigned short>(items.on.id + 1)), nullptr);
}

TEST_F(Lookup, Describes_the_structure_to_a_depth) {
    const auto hex = [](const CDS::Lookup_item& i) {
        char text[8];
        snprintf(text, sizeof text, "%x", i.id);
        return std::string(text);
    };
    const std::string engine = "1:" + hex(items.engine) + ":engine";
    const std::string inner =
        "{8:" + hex(items.speed) + ":speed,4:" + hex(items.mode) + ":mode,a:" + hex(items.load) + ":load}";
    EXPECT_EQ(structure(items.engine, 0), engine);
    EXPECT_EQ(structure(items.engine, 1), engine + inner);
    const std::string rest = ",25:" + hex(items.levels) + ":levels,23:" + hex(items.label) +
                             ":label,9:" + hex(items.counter) + ":counter,2:" + hex(items.on) + ":on}";
    const std::string root = "1:" + hex(items.root) + ":machine{";
    EXPECT_EQ(structure(items.root, 1), root + engine + rest);
    for (int everything : {2, 255, 1000, -1})
        EXPECT_EQ(structure(items.root, everything), root + engine + inner + rest);
}

TEST_F(Lookup, Writes_values_in_order_from_any_item_on) {
    const std::string all = values();
    EXPECT_EQ(all, std::string("\x64\x00\x02\x00\x00\x00\x3F"         // engine
                               "\x04\x01\x00\x02\x00\x03\x00\x04\x00" // levels
                               "\x08"
                               "abc\x00\x00\x00\x00\x00" // label
                               "\x07\x00\x00\x00\x01",
                               30));
    EXPECT_EQ(values(items.load.id), all.substr(3));
    EXPECT_EQ(values(items.levels.id), all.substr(7));
    unsigned short nowhere = 0xFFF0;
    CDS::Remote::Receive_buffer in(all.data(), static_cast<int>(all.size()));
    EXPECT_TRUE(items.root.deserialise(in, nowhere).ok());
    EXPECT_EQ(nowhere, 0xFFF0) << "shows the caller that the item was not met";
    EXPECT_EQ(in.remaining, 30);
}

TEST_F(Lookup, Reading_signals_just_what_changed) {
    ASSERT_EQ(head.event_register(&inbox.waiter, 0, sizeof(Block), CDS::reg_value, 1, nullptr, nullptr), 0);
    ASSERT_EQ(head.event_register(&inbox.waiter, offsetof(Block, engine.speed), 2, CDS::reg_value, 2, nullptr, nullptr),
              0);
    std::string bytes = values();
    const auto read = [&] {
        unsigned short start = 0;
        CDS::Remote::Receive_buffer in(bytes.data(), static_cast<int>(bytes.size()));
        return items.root.deserialise(in, start);
    };
    EXPECT_TRUE(read().ok());
    EXPECT_EQ(inbox.targets(), std::vector<long>{});
    bytes[0] = 101;
    EXPECT_TRUE(read().ok());
    EXPECT_EQ(block.engine.speed, 101);
    EXPECT_EQ(inbox.targets(), (std::vector<long>{1, 2}));
    bytes[8] = 9; // one element: one event for the whole array
    EXPECT_TRUE(read().ok());
    EXPECT_EQ(block.levels[0], 9);
    EXPECT_EQ(inbox.targets(), std::vector<long>{1});
    EXPECT_TRUE(items.told.empty()) << "a remote write wakes diners, not listeners";
}

TEST_F(Lookup, Reading_stops_where_the_bytes_end_and_tells_where_to_resume) {
    const std::string bytes = values();
    const struct {
        int length;
        const CDS::Lookup_item* stopped;
        const CDS::Lookup_item* resume;
    } table[] = {{1, &items.speed, &items.mode},
                 {2, &items.mode, &items.load},
                 {6, &items.load, &items.levels},
                 {10, &items.levels, &items.label},
                 {29, &items.on, nullptr}};
    for (const auto& row : table) {
        unsigned short start = 0;
        CDS::Remote::Receive_buffer in(bytes.data(), row.length);
        const auto result = items.root.deserialise(in, start);
        EXPECT_EQ(result.stop(), row.stopped->id) << row.length;
        EXPECT_EQ(result.next(), row.resume ? row.resume->id : 0) << row.length;
    }
}

TEST_F(Lookup, An_array_takes_the_count_that_was_sent_up_to_its_own) {
    const struct {
        std::string bytes;
        unsigned short expected[4];
        int left;
    } table[] = {{std::string("\x02\x09\x00\x08\x00", 5), {9, 8, 3, 4}, 0},
                 {std::string("\x05\x09\x00\x08\x00\x07\x00\x06\x00\x05\x00", 11), {9, 8, 7, 6}, 2}};
    for (const auto& row : table) {
        unsigned short start = 0;
        CDS::Remote::Receive_buffer in(row.bytes.data(), static_cast<int>(row.bytes.size()));
        EXPECT_TRUE(items.levels.deserialise(in, start).ok());
        EXPECT_EQ(memcmp(block.levels, row.expected, sizeof block.levels), 0);
        EXPECT_EQ(in.remaining, row.left);
    }
}

TEST_F(Lookup, Change_scan_tells_the_listeners_of_changed_bytes) {
    const struct {
        size_t offset; ///< of the byte that differs; the size of the block: none
        std::vector<std::string> told;
    } table[] = {{sizeof(Block), {}},
                 {offsetof(Block, engine.speed) + 1, {"speed1", "engine1"}},
                 {offsetof(Block, engine.load) + 3, {"engine1"}},
                 {offsetof(Block, engine.mode) + 1, {}}, // a gap
                 {offsetof(Block, levels), {}},
                 {offsetof(Block, label) + 7, {"label1"}}};
    for (const auto& row : table) {
        Block old = block;
        if (row.offset < sizeof(Block)) reinterpret_cast<unsigned char*>(&old)[row.offset] ^= 1;
        items.told.clear();
        items.root.signal_update(&block, &old, sizeof block);
        EXPECT_EQ(items.told, row.told) << row.offset;
        items.told.clear();
        head.event_signal(&block, &old, 0, sizeof block, nullptr);
        EXPECT_EQ(items.told, row.told) << row.offset;
    }
    Block elsewhere = block, old = block;
    old.engine.speed = 1;
    items.told.clear();
    EXPECT_FALSE(items.root.signal_update(&elsewhere, &old, sizeof old)) << "not the live block";
    head.event_signal(&block, &old, 0, -1, nullptr); // no bytes
    EXPECT_TRUE(items.told.empty());
}

TEST_F(Lookup, Change_scan_agrees_with_the_bytes_wherever_they_differ) {
    std::mt19937 random(20261121);
    std::unique_ptr<CDS::Value<short>> late;
    for (int round = 0; round < 600; ++round) {
        if (round == 200) late = std::make_unique<CDS::Value<short>>(items.root, "late", block.engine.speed);
        if (round == 400) items.root.finish(); // now known to stand out of order
        Block old = block;
        auto* const bytes = reinterpret_cast<unsigned char*>(&old);
        for (unsigned i = random() % 4; i > 0; --i) bytes[random() % sizeof old] ^= 1;
        const auto differs = [&](const auto& member) {
            const auto* const now = reinterpret_cast<const unsigned char*>(&member);
            return memcmp(now, bytes + (now - reinterpret_cast<const unsigned char*>(&block)), sizeof member) != 0;
        };
        const Engine& engine = block.engine;
        std::vector<std::string> expected;
        if (differs(engine.speed)) expected.push_back("speed1");
        if (differs(engine.speed) || differs(engine.mode) || differs(engine.load)) expected.push_back("engine1");
        if (differs(block.label)) expected.push_back("label1");
        items.told.clear();
        items.root.signal_update(&block, &old, sizeof old);
        ASSERT_EQ(items.told, expected) << round;
    }
}

/// One value and one array of T: what they say they are, how many bytes they take, and that these come back.
template <class T>
void expect_travels(Data_item::item_type_t type, int width, T value) {
    struct {
        T one, three[3];
    } block = {value, {value, T(), value}};
    CDS::Head head(nullptr, 0);
    head.lock();
    CDS::Root root(head, "block", block);
    CDS::Value<T> one(root, "one", block.one);
    CDS::Array<T> three(root, "three", block.three);
    root.finish();
    EXPECT_EQ(one.get_type_byte(), type);
    EXPECT_EQ(three.get_type_byte(), 0x20 + type);

    char bytes[64];
    CDS::Remote::Send_buffer out(bytes, 0, sizeof bytes);
    unsigned short start = 0;
    root.serialise(out, start);
    EXPECT_EQ(out.position - bytes, 4 * width + 1) << int(type);
    block.one = block.three[0] = block.three[2] = T();
    CDS::Remote::Receive_buffer in(bytes, static_cast<int>(out.position - bytes));
    EXPECT_TRUE(root.deserialise(in, start).ok());
    EXPECT_TRUE(block.one == value && block.three[0] == value && block.three[2] == value) << int(type);
    head.unlock();
}

TEST(Items, Of_every_type_travel) {
    expect_travels<bool>(Data_item::item_bool, 1, true);
    expect_travels<char>(Data_item::item_char, 1, '\xFE');
    expect_travels<unsigned char>(Data_item::item_uint8, 1, 254);
    expect_travels<unsigned short>(Data_item::item_uint16, 2, 0xFEDC);
    expect_travels<unsigned int>(Data_item::item_uint32, 4, 0xFEDCBA98);
    expect_travels<unsigned long>(Data_item::item_uint32, 4, 0xFEDCBA98);
    expect_travels<unsigned long long>(Data_item::item_uint64, 8, 0xFEDCBA9876543210ULL);
    expect_travels<signed char>(Data_item::item_int8, 1, -2);
    expect_travels<short>(Data_item::item_int16, 2, -300);
    expect_travels<int>(Data_item::item_int32, 4, -70000);
    expect_travels<long>(Data_item::item_int32, 4, -70000);
    expect_travels<long long>(Data_item::item_int64, 8, -5000000000LL);
    expect_travels<float>(Data_item::item_float, 4, -1.5f);
    expect_travels<double>(Data_item::item_double, 8, 1e-300);
}

TEST(Compare, Agrees_with_a_byte_by_byte_scan) {
    unsigned char now[700], before[700];
    for (int at = 0; at < 700; ++at) {
        memset(now, 0, sizeof now);
        memcpy(before, now, sizeof now);
        before[at] = 1;
        CDS::Compare compare(now, before, sizeof now);
        EXPECT_FALSE(compare.done);
        EXPECT_EQ(compare.first_diff, at);
        EXPECT_FALSE(compare.seek(now + at));
        EXPECT_EQ(compare.first_diff, 0);
        EXPECT_TRUE(at == 699 || compare.seek(now + at + 1));
        EXPECT_TRUE(at == 699 || compare.done);
    }
    EXPECT_TRUE(CDS::Compare(now, now, sizeof now).done);
    EXPECT_TRUE(CDS::Compare(now, before, 0).done);

    // Going back looks only at what lies behind the old place: children stand in block order.
    memcpy(before, now, sizeof now);
    before[10] = before[600] = 1;
    CDS::Compare compare(now, before, sizeof now);
    compare.seek(now + 300);
    compare.seek(now + 0);
    EXPECT_EQ(compare.first_diff, 600);
}

TEST_F(Lookup, Prints_declarations_and_values) {
    Capture err(stderr);
    items.engine.print_declaration(1);
    items.levels.print_declaration(0);
    EXPECT_EQ(err.text(), "    struct  { \"the engine\"\n        short speed; // [1/min]\n        unsigned char mode;\n"
                          "        float load;\n    } engine;\nunsigned short levels[4];\n");
}

TEST(Numbers_as_names, Stay_where_they_are) {
    const char* const three = CDS::get_number_as_name(3);
    EXPECT_STREQ(three, "3");
    EXPECT_STREQ(CDS::get_number_as_name(0), "0");
    EXPECT_STREQ(CDS::get_number_as_name(5000), "5000");
    EXPECT_EQ(CDS::get_number_as_name(3), three);
    const Child_result child = run_child([] { CDS::get_number_as_name(~0u); });
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_NE(child.err.find("glue/cds/CDSLookup"), std::string::npos);
    EXPECT_NE(child.err.find("`names'"), std::string::npos);
}

TEST_F(Lookup, Values_are_compared_as_their_type_compares) {
    ASSERT_EQ(head.event_register(&inbox.waiter, 0, sizeof(Block), CDS::reg_value, 1, nullptr, nullptr), 0);
    const auto read_load = [&](float value) {
        char bytes[4];
        CDS::Remote::Send_buffer(bytes, 0, 4).append_FLOAT(value);
        CDS::Remote::Receive_buffer in(bytes, 4);
        unsigned short start = 0;
        items.load.deserialise(in, start);
        return inbox.targets().size();
    };
    EXPECT_EQ(read_load(0.0f), 1u);
    EXPECT_EQ(read_load(-0.0f), 0u) << "equal, so neither stored nor signalled";
    EXPECT_FALSE(std::signbit(block.engine.load));
    EXPECT_EQ(read_load(NAN), 1u);
    EXPECT_EQ(read_load(NAN), 1u) << "differs from itself";
}

} // namespace
