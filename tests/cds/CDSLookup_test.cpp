// SPDX-License-Identifier: MIT
#include "cds/Block_fixture.h"
#include "glue/cds/CDS_remote.h"
#include "support/test.h"
#include <cmath>

namespace {

class Lookup : public testing::Test {
protected:
    Lookup() { head.lock(); }
    ~Lookup() override { head.unlock(); }

    template <class Write>
    static std::string sent(Write write) {
        char bytes[512];
        CDS::Remote::Send_buffer out(bytes, 0, sizeof bytes);
        write(out);
        return std::string(bytes, out.position);
    }
    static std::string structure(CDS::Lookup_item& item, int depth) {
        return sent([&](auto& out) { item.serialise_structure(out, depth); });
    }
    std::string values(unsigned short start = 0) {
        return sent([&](auto& out) { EXPECT_TRUE(items.root.serialise(out, start).ok()); });
    }
    /// What becomes of a read: how many bytes are left, or where it stopped and is to go on.
    static std::string read(CDS::Lookup_item& item, const std::string& bytes) {
        unsigned short start = 0;
        CDS::Remote::Receive_buffer in(bytes.data(), static_cast<int>(bytes.size()));
        const Data_item::Serial_ret result = item.deserialise(in, start);
        return result.ok() ? text_of("%d left", in.remaining) : text_of("%d, %d", result.stop(), result.next());
    }
    /// What an item prints; when engine alone is asked, its start is refused.
    static std::string printed(CDS::Lookup_item& item) {
        struct Recorder : Debug::Dumper {
            bool start(const char* name) override { return (text += std::string(name) + "("), text != "engine("; }
            void end(const char* name) override { text += std::string(")") + name + ";"; }
            void field(const char* label, const char* value) override {
                text += std::string(label) + "=" + value + ";";
            }
            std::string text;
        } recorder;
        item._print(recorder);
        return recorder.text;
    }

    const unsigned short first_id = Data_item::lookup_max_id = 1; ///< root 1, engine 2, and so on to on 9
    module_man modules;
    CDS::Head head{&modules, 0};
    Block block{{100, 2, 0.5f}, {1, 2, 3, 4}, "abc", 7, true};
    Block_items items{head, block};
    Inbox inbox{modules};
};

TEST_F(Lookup, Finds_items_by_path_and_by_identifier) {
    Block_items& i = items;
    const std::pair<const char*, int> table[] = {
        {"", 1},      {"engine", 2}, {"engine.speed", 3}, {"engine.spee", 0},  {"engine.speedo", 0}, // 0: nothing
        {"speed", 0}, {"on", 9},     {"engine.", 2},      {"engine..speed", 0}};
    for (const auto& [path, id] : table) {
        const Data_item* const found = i.root.find_data_item(path);
        EXPECT_EQ(found ? found->id : 0, id) << path;
    }
    EXPECT_EQ(i.root.find_item("engine/speed", '/'), &i.speed);
    EXPECT_EQ(i.root.find_item("engine", 0), &i.engine) << "no separator: one name";
    Capture err(stderr);
    EXPECT_EQ(i.root.find_item("engine.speed.x", '.'), nullptr);
    EXPECT_EQ(err.text(), "Base find item, why? speed,3,x,.\n");

    EXPECT_VALUES("true true", i.root.find_data_item(1) == &i.root, i.root.find_data_item(9) == &i.on);
    EXPECT_VALUES("true null", i.engine.find_item(5) == &i.load, i.engine.find_item(9));
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
    CDS::Access_base whole(&head, 0, sizeof(Block)), speed(&head, offsetof(Block, engine.speed), 2),
        last_level(&head, offsetof(Block, levels) + 6, 2);
    ASSERT_VALUES("0 0", whole.reg(&inbox.waiter, 1), speed.reg(&inbox.waiter, 2));
    ASSERT_EQ(last_level.reg(&inbox.waiter, 3), 0);
    std::string bytes = values();
    EXPECT_EQ(read(items.root, bytes), "0 left");
    EXPECT_EQ(inbox.targets(), "");
    bytes[0] = 101;
    bytes[29] = 0;
    read(items.root, bytes);
    EXPECT_EQ(block.engine.speed, 101);
    EXPECT_EQ(inbox.targets(), "121");
    const std::string two("\2\x09\0\2\0", 5), five("\5\x09\0\x08\0\7\0\6\0\5\0", 11);
    EXPECT_EQ(read(items.levels, two), "0 left");
    EXPECT_EQ(printed(items.levels), "levels(0=9;1=2;2=3;3=4;)levels;");
    EXPECT_EQ(read(items.levels, five), "2 left");
    EXPECT_EQ(printed(items.levels), "levels(0=9;1=8;2=7;3=6;)levels;");
    EXPECT_EQ(inbox.targets(), "1313") << "one event for the whole array";
    EXPECT_TRUE(items.told.empty()) << "a remote write wakes diners, not listeners";

    read(items.on, "\x80");
    EXPECT_TRUE(block.on) << "any byte but zero";
    EXPECT_EQ(inbox.targets(), "1");
    const auto read_load = [&](float value) {
        read(items.load, std::string(reinterpret_cast<char*>(&value), 4));
        return inbox.targets().size();
    };
    EXPECT_EQ(read_load(0.0f), 1u);
    EXPECT_EQ(read_load(-0.0f), 0u) << "equal, so neither stored nor signalled";
    EXPECT_FALSE(std::signbit(block.engine.load));
    EXPECT_EQ(read_load(NAN), 1u);
    EXPECT_EQ(read_load(NAN), 1u) << "differs from itself";
}

TEST_F(Lookup, A_walk_begins_at_any_item_and_tells_where_it_stopped) {
    const std::string all = values();
    EXPECT_EQ(values(5), all.substr(3));
    EXPECT_EQ(values(6), all.substr(7));
    EXPECT_EQ(values(0xFFF0), "") << "an item that is not met";
    const std::pair<size_t, const char*> table[] = {{1, "3, 4"}, {6, "5, 6"}, {10, "6, 7"}, {29, "9, 0"}};
    for (const auto& [length, stop_and_next] : table)
        EXPECT_EQ(read(items.root, all.substr(0, length)), stop_and_next) << length;
}

TEST_F(Lookup, Pages_of_the_values_join_to_the_whole_stream) {
    const auto expect_pages = [&](const std::string& all) {
        for (int page : {1, 2, 3, 5, 100}) {
            std::string joined;
            for (char bytes[100]; static_cast<int>(joined.size()) % page == 0;) {
                CDS::Remote::Send_buffer out(bytes, static_cast<int>(joined.size()), page);
                unsigned short start = 0;
                EXPECT_TRUE(items.root.serialise(out, start).ok());
                if (out.position == bytes) break;
                joined.append(bytes, out.position);
            }
            EXPECT_EQ(joined, all) << page;
        }
    };
    const std::string all = values();
    expect_pages(all);
    bool joined_later = true; // a struct inside has grown, which the root must not miss
    const CDS::Value<bool> late{items.engine, "late", joined_later};
    expect_pages(all.substr(0, 7) + '\1' + all.substr(7));
}

TEST_F(Lookup, Change_scan_tells_the_listeners_of_changed_bytes) {
    std::mt19937 random(20261121);
    std::unique_ptr<CDS::Value<short>> late;
    for (int round = 0; round < 600; ++round) {
        if (round == 200) late = std::make_unique<CDS::Value<short>>(items.root, "late", block.engine.speed);
        if (round == 400) items.root.finish(); // now known to stand out of order
        Block old = block;
        auto* const bytes = reinterpret_cast<unsigned char*>(&old);
        for (unsigned i = random() % 4; i > 0; --i) bytes[random() % sizeof old] ^= 1; // gaps too
        const auto differs = [&](const auto& member) {
            const auto* const now = reinterpret_cast<const unsigned char*>(&member);
            return memcmp(now, bytes + (now - reinterpret_cast<const unsigned char*>(&block)), sizeof member) != 0;
        };
        const Engine& engine = block.engine;
        std::string expected;
        if (differs(engine.speed)) expected += "speed1 ";
        if (differs(engine.speed) || differs(engine.mode) || differs(engine.load)) expected += "engine1 ";
        if (differs(block.label)) expected += "label1 ";
        if (differs(block.on)) expected += "on1 ";
        items.told.clear();
        head.event_signal(&block, &old, 0, sizeof old, nullptr);
        ASSERT_EQ(items.told, expected) << round;
    }
    const Block elsewhere = block, old{};
    items.told.clear();
    EXPECT_FALSE(items.root.signal_update(&elsewhere, &old, sizeof old)) << "not the live block";
    EXPECT_FALSE(items.label.signal_update(&block, &old, offsetof(Block, label))) << "up to it";
    head.event_signal(&block, &old, 0, -1, nullptr); // no bytes
    EXPECT_TRUE(items.told.empty());
    // A copy may begin before the item and inside it.
    EXPECT_TRUE(items.label.signal_update(&block, &old, offsetof(Block, label) + 1));
    EXPECT_TRUE(items.engine.signal_update(&block.engine.load, &old.engine.load, sizeof(float)));
    EXPECT_EQ(items.told, "label1 engine1 ");
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
    CDS::Value<short> first(root, "first", now[0]);
    Movable movable(root);
    CDS::Value<short> last(root, "last", now[3]);
    root.finish();
    EXPECT_EQ(movable.asked, 0) << "it has no place yet";
    movable.value = now + 1;
    root.finish();
    movable.value = now + 2;
    Told told("movable", items.told);
    movable.update_listener = &told;
    EXPECT_TRUE(root.signal_update(now, old, sizeof now));
    EXPECT_EQ(items.told, "movable1 ");
}

TEST(Compare, Finds_the_first_difference) {
    unsigned char now[5000] = {}, before[5000] = {};
    for (int at = 0; at < 5000; before[at] = 0, at += 7) {
        before[at] = 1;
        const CDS::Compare compare(now, before, sizeof now);
        EXPECT_VALUES(texts(true, at), !compare.done, compare.first_diff) << at;
    }
    // Going back looks only at what lies behind the old place: children stand in block order.
    before[10] = before[600] = 1;
    CDS::Compare compare(now, before, sizeof now);
    compare.seek(now + 300);
    compare.seek(now + 0);
    EXPECT_EQ(compare.first_diff, 600);
}

/// One value and one array of T: what they say they are, their bytes, and that these come back.
template <class T>
void expect_travels(int type, T value, const char* bytes, size_t width = sizeof(T)) {
    struct {
        T one, two[2];
    } block = {value, {T(), value}};
    CDS::Head head(nullptr, 0);
    const std::lock_guard<Mutex> guard(head);
    CDS::Root root(head, "block", block);
    CDS::Value<T> one(root, "one", block.one);
    CDS::Array<T> two(root, "two", block.two);
    root.finish();
    EXPECT_VALUES(texts(type, 0x20 + type), one.get_type_byte(), two.get_type_byte()) << type;

    const std::string encoded(bytes, width);
    char page[64];
    CDS::Remote::Send_buffer out(page, 0, sizeof page);
    unsigned short start = 0;
    root.serialise(out, start);
    EXPECT_EQ(std::string(page, out.position), encoded + '\2' + std::string(width, '\0') + encoded) << type;
    block.one = block.two[1] = T();
    CDS::Remote::Receive_buffer in(page, static_cast<int>(out.position - page));
    EXPECT_TRUE(root.deserialise(in, start).ok());
    EXPECT_VALUES(texts(value, value), block.one, block.two[1]) << type;
}

TEST(Items, Of_every_type_travel) {
    expect_travels(2, true, "\x01");
    expect_travels(3, '\xFE', "\xFE");
    expect_travels<unsigned char>(4, 254, "\xFE");
    expect_travels<unsigned short>(5, 0xFEDC, "\xDC\xFE");
    expect_travels(6, 0xFEDCBA98, "\x98\xBA\xDC\xFE");
    expect_travels(6, 0xFEDCBA98UL, "\x98\xBA\xDC\xFE", 4);
    expect_travels<signed char>(7, -2, "\xFE");
    expect_travels<short>(8, -300, "\xD4\xFE");
    expect_travels(9, -3, "\xFD\xFF\xFF\xFF");
    expect_travels(9, -3L, "\xFD\xFF\xFF\xFF", 4);
    expect_travels(10, 1.5f, "\0\0\xC0\x3F");
    expect_travels(11, -2.5, "\0\0\0\0\0\0\x04\xC0");
    expect_travels(15, 0xFEDCBA9876543210ULL, "\x10\x32\x54\x76\x98\xBA\xDC\xFE");
    expect_travels(16, -4LL, "\xFC\xFF\xFF\xFF\xFF\xFF\xFF\xFF");
}

TEST_F(Lookup, Prints_values) {
    EXPECT_EQ(printed(items.engine), "engine(");
    memcpy(block.label, "12345678", 8); // no zero behind it
    EXPECT_EQ(printed(items.root), "machine(engine(speed=100;mode=2;load=0.5;)engine;levels(0=1;1=2;2=3;3=4;)levels;"
                                   "label=\"12345678\";counter=7;on=true;)machine;");
}

TEST(Numbers_as_names, Stay_where_they_are) {
    const char* const three = CDS::get_number_as_name(3);
    EXPECT_STREQ(three, "3");
    EXPECT_STREQ(CDS::get_number_as_name(5000), "5000");
    EXPECT_EQ(CDS::get_number_as_name(3), three);
    const std::string err = run_child([] { CDS::get_number_as_name(~0u); }).err;
    EXPECT_NE(err.find("glue/cds/CDSLookup:1: "), std::string::npos) << err;
    EXPECT_NE(err.find("`names'"), std::string::npos);
}

} // namespace
