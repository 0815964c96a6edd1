// SPDX-License-Identifier: MIT
#include "glue/diagnostics/Trouble_code_messages.h"
#include "glue/diagnostics/Trouble_code_text.h"
#include "support/bytes.h"
#include "support/test.h"

using namespace Trouble_code_messages;
using Table = Trouble_code_table;

namespace {

TEST(Trouble_code, Stands_in_four_bytes_whatever_the_pair) {
    const std::pair<Trouble_code, const char*> golden[] = {{{1234, 31, 1, false}, "D2 04 1F 01"},
                                                           {{520192, 12, 126, false}, "00 F0 EC 7E"},
                                                           {{0x7FFFF, 31, 127, true}, "FF FF FF FF"},
                                                           {{0, 0, 0, false}, "00 00 00 00"}};
    unsigned char bytes[4];
    for (const auto& [code, expected] : golden) {
        code.write(bytes);
        EXPECT_EQ(hex(bytes, 4), expected);
    }
    unsigned wrong = 0;
    for (uint32_t key = 0; key < 1 << 24; ++key) {
        const Trouble_code sent{key >> 5, static_cast<uint8_t>(key & 31), static_cast<uint8_t>(key % 128),
                                key % 3 == 0};
        sent.write(bytes);
        const Trouble_code got = Trouble_code::read(bytes);
        wrong += got.key() != key || got.count != sent.count || got.old_method != sent.old_method ||
                 bytes[2] != sent.third_byte() || got.valid() != (sent.spn > 0 && sent.spn < 524287);
    }
    EXPECT_EQ(wrong, 0u);
}

/// Against lists of keys, the code that changed last in front.
TEST(Trouble_code_table, Keeps_order_place_and_recency_and_gives_up_the_oldest_previous_code) {
    std::mt19937 random(4711);
    Table table(50);
    std::list<uint32_t> model[Table::num_states];
    const long before = allocations();
    long of_the_model = 0;
    for (int step = 0; step < 20000; ++step) {
        const uint32_t key = random() % 80 + 32;
        const auto state = static_cast<Table::State>(1 + random() % 3);
        Table::Entry* e = table.find(key);
        const long model_before = allocations();
        for (auto& keys : model) keys.remove(key);
        ASSERT_EQ(e != nullptr, table.size() > model[1].size() + model[2].size() + model[3].size());
        if (e && random() % 4 == 0) {
            table.erase(*e);
        } else if (e) {
            table.move(*e, state);
            model[state].push_front(key);
        } else if (table.size() < 50 || !model[Table::previous].empty()) {
            if (table.size() == 50) model[Table::previous].pop_back();
            e = table.add(key, state);
            ASSERT_TRUE(e && e->key == key && e->count == 0) << step;
            model[state].push_front(key);
        } else {
            ASSERT_EQ(table.add(key, state), nullptr);
        }
        of_the_model += allocations() - model_before;
        for (int s = 1; s < Table::num_states; ++s) {
            const Table::Entry* at = table.newest(static_cast<Table::State>(s));
            for (const uint32_t expected : model[s]) {
                ASSERT_TRUE(at && at->key == expected && at->state() == s) << step;
                at = at->older();
            }
            ASSERT_EQ(at, nullptr);
        }
        const auto place = static_cast<unsigned>(random() % 50);
        ASSERT_EQ(table[place] != nullptr, place < table.size());
        ASSERT_TRUE(place == 0 || !table[place] || table[place - 1]->key < table[place]->key);
    }
    EXPECT_EQ(allocations() - before, of_the_model);
}

std::string built(Table& table, Table::State state, Mode mode, unsigned room = JIN::max_length) {
    unsigned char bytes[JIN::max_length];
    Binary_message m(bytes, room);
    build_DM(m, table, state, mode);
    return hex(bytes, m.size);
}

void add(Table& table, uint32_t spn, unsigned fmi, uint8_t count, Table::State state = Table::active, Lamp lamp = {}) {
    Table::Entry* e = table.add(Trouble_code::key(spn, fmi), state);
    e->count = count;
    e->lamp = lamp;
}

TEST(Trouble_code_messages, Lists_of_codes) {
    Table table(700);
    EXPECT_EQ(built(table, Table::active, Mode::iso), "FF FF 00 00 00 00 FF FF");
    EXPECT_EQ(built(table, Table::active, Mode::j1939), "00 FF 00 00 00 00 FF FF");
    add(table, 1234, 31, 1, Table::active, {Lamp::amber_warning, Lamp::slow});
    EXPECT_EQ(built(table, Table::active, Mode::iso), "FF FF D2 04 1F 01 FF FF");
    EXPECT_EQ(built(table, Table::active, Mode::j1939), "04 F3 D2 04 1F 01 FF FF");
    add(table, 520192, 12, 126, Table::active, {Lamp::amber_warning, Lamp::fast});
    add(table, 7, 7, 7, Table::previous, {Lamp::malfunction, Lamp::solid});
    EXPECT_EQ(built(table, Table::active, Mode::j1939), "04 F7 00 F0 EC 7E D2 04 1F 01");
    EXPECT_EQ(built(table, Table::previous, Mode::j1939), "00 FF 07 00 07 07 FF FF");
    add(table, 9, 0, 1, Table::active, {Lamp::malfunction, Lamp::solid});
    EXPECT_EQ(built(table, Table::active, Mode::j1939, 9), "44 F7 09 00 00 01 FF FF") << "lamps of all";
    EXPECT_EQ(built(table, Table::active, Mode::iso, 7), "");

    // 445 codes are the most that a message holds; of more than 250 the last that changed are sent.
    for (const unsigned n : {64u, 250u, 251u, 446u, 600u}) {
        Table many(700);
        for (unsigned i = 1; i <= n; ++i) add(many, i, 3, 1, Table::previous);
        unsigned char bytes[JIN::max_length];
        Binary_message m(bytes, sizeof bytes);
        build_DM(m, many, Table::previous, Mode::iso);
        const Msg_DM dm(m);
        const unsigned sent = std::min(n, 250u);
        ASSERT_EQ(dm.num_places(), sent);
        Trouble_code c;
        for (unsigned i = 0; i < sent; ++i) EXPECT_VALUES(texts(true, n - i, 3), dm.code(i, c), c.spn, c.fmi);
        EXPECT_FALSE(dm.code(sent, c));
    }
}

TEST(Trouble_code_messages, The_most_urgent_lamp_shows) {
    Lamps lamps;
    for (const auto flash : {Lamp::slow, Lamp::solid, Lamp::fast, Lamp::slow}) lamps.add({Lamp::red_stop, flash});
    lamps.add({Lamp::none, Lamp::fast});
    EXPECT_VALUES(texts(true, Lamp::fast), lamps.on(Lamp::red_stop), lamps.flash(Lamp::red_stop));
    EXPECT_VALUES("false false false", lamps.on(Lamp::malfunction), lamps.on(Lamp::none),
                  Lamps::not_used().on(Lamp::malfunction));
}

/// Any length is read: what is not there is not there.
TEST(Trouble_code_messages, Reading_any_length) {
    for (unsigned n = 0; n <= JIN::max_length; ++n) {
        const auto bytes = std::make_unique<unsigned char[]>(n); // of exactly that size
        for (unsigned i = 0; i < n; ++i) bytes[i] = static_cast<unsigned char>(i < 2 ? 0xFF : 0x11);
        const Binary_message m(bytes.get(), n);
        const Msg_DM dm(m);
        unsigned found = 0;
        Trouble_code c;
        for (unsigned i = 0; i < 446; ++i) found += dm.code(i, c);
        EXPECT_EQ(found, n < 6 ? 0 : (n - 2) / 4) << n;
        EXPECT_EQ(Msg_DM22(m).valid(), n >= 8);
        EXPECT_EQ(Msg_DM22(m).code().spn, n >= 8 ? 0x1111u : 0u);
        EXPECT_EQ(Msg_DM13(m).valid(), n >= 6);
        EXPECT_EQ(Msg_acknowledgment(m).valid(), n >= 8);
    }
    const struct {
        const char* bytes;
        unsigned codes;
    } table[] = {{"03 FF 00 00 00 00 FF FF", 0},       // as trucks send it
                 {"FF FF FF FF FF FF FF FF", 0},       // SPN 524287
                 {"FF FF D2 04 1F 01 FF FF", 1},       // padding is no code
                 {"FF FF D2 04 1F FF 00 00 00 00", 1}, // count 127 with the old method
                 {"FF FF FE FF FF 01 FF FF", 1}};      // SPN 524286, FMI 31
    for (const auto& row : table) {
        Bytes bytes(row.bytes);
        unsigned found = 0;
        Trouble_code c;
        for (unsigned i = 0; i < Msg_DM(bytes.view()).num_places(); ++i) found += Msg_DM(bytes.view()).code(i, c);
        EXPECT_EQ(found, row.codes) << row.bytes;
    }
}

TEST(Trouble_code_messages, A_duration_is_in_seconds_from_where_it_is_written) {
    unsigned char bytes[8];
    for (const unsigned duration : {0u, 5u, 64255u, 64256u}) {
        Binary_message m(bytes, sizeof bytes);
        build_DM13(m, Msg_DM13::stop, true, duration);
        EXPECT_TRUE(duration != 5 || hex(m) == "3F FF FF 0F 05 00 FF FF");
        EXPECT_EQ(Msg_DM13(m).duration(), duration % 64256);
    }
}

TEST(Trouble_code_text, Comes_back_as_previously_active) {
    Table table;
    add(table, 1234, 31, 126);
    add(table, 7, 0, 1, Table::previous);
    const std::string text = to_text(table);
    EXPECT_EQ(text, "00007 00 01 P   \n004D2 1F 7E A   \n");
    Table again;
    // What is no line of ours costs only itself.
    EXPECT_EQ(from_text("00000 00 01 P   \n7FFFF 00 01 P   \n00007 20 01 P   \n00008 00 00 P   \n"
                        "00009 00 7F A   \n0000a 00 01 A   \n-0007 00 01 P   \n00007 00 01 X   \n" +
                            text + std::string(40, '\n'),
                        again),
              2u);
    EXPECT_EQ(to_text(again), "00007 00 01 P   \n004D2 1F 7E P   \n");
    EXPECT_EQ(again.count(Table::previous), 2u);
    EXPECT_EQ(from_text("", again), 0u);
}

} // namespace
