// SPDX-License-Identifier: MIT
#include "glue/diagnostics/Trouble_code_monitor.h"
#include "glue/diagnostics/Trouble_code_text.h"
#include "glue/jin/JIN_assembler.h"
#include "support/frame.h"
#include "support/stress.h"
#include "support/test.h"

using namespace Trouble_code_messages;
using Table = Trouble_code_table;

namespace {

TEST(Trouble_code, Stands_in_four_bytes_whatever_the_pair) {
    unsigned wrong = 0;
    for (uint32_t key = 0; key < 1 << 24; ++key) {
        unsigned char bytes[4];
        const Trouble_code sent{key >> 5, uint8_t(key & 31), uint8_t(key % 128), key % 3 == 0};
        sent.write(bytes);
        const Trouble_code got = Trouble_code::read(bytes);
        wrong += got.key() != key || got.count != sent.count || got.old_method != sent.old_method ||
                 bytes[2] != sent.third_byte() || got.valid() != (sent.spn > 0 && sent.spn < 524287);
    }
    EXPECT_EQ(wrong, 0u);
}

/// Against a list of all codes, the one that changed last in front.
TEST(Trouble_code_table, Keeps_order_place_and_recency_and_gives_up_the_oldest_previous_code) {
    std::mt19937 random(4711);
    Table table(50);
    std::list<std::pair<uint32_t, Table::State>> model;
    for (int step = 0; step < 20000; ++step) {
        const uint32_t key = random() % 80 + 32;
        const auto state = static_cast<Table::State>(1 + random() % 3);
        const auto known = std::find_if(model.begin(), model.end(), [&](auto& c) { return c.first == key; });
        const bool found = known != model.end(), erased = found && random() % 4 == 0;
        auto given_up = model.end();
        for (auto at = model.begin(); at != model.end(); ++at)
            if (at->second == Table::previous && !found && model.size() == 50) given_up = at;
        Table::Entry* e = table.find(key);
        ASSERT_EQ(e != nullptr, found);
        if (!found) e = table.add(key, state);
        if (found && !erased) table.move(*e, state);
        if (erased) table.erase(*e);
        ASSERT_EQ(!e, !found && model.size() == 50 && given_up == model.end());
        ASSERT_TRUE(found || !e || (e->key == key && e->count == 0));
        if (given_up != model.end()) model.erase(given_up);
        if (found) model.erase(known);
        if (e && !erased) model.emplace_front(key, state);
        const Table::Entry* at[Table::num_states] = {};
        for (int s = 1; s < Table::num_states; ++s) at[s] = table.newest(static_cast<Table::State>(s));
        for (const auto& [expected, s] : model) {
            ASSERT_TRUE(at[s] && at[s]->key == expected && at[s]->state() == s) << step;
            at[s] = at[s]->older();
        }
        ASSERT_TRUE(!at[1] && !at[2] && !at[3]);
        const auto place = static_cast<unsigned>(random() % 50);
        ASSERT_EQ(table[place] != nullptr, place < model.size());
        ASSERT_TRUE(place == 0 || !table[place] || table[place - 1]->key < table[place]->key);
    }
}

void add(Table& table, uint32_t spn, unsigned fmi, uint8_t count, Table::State state = Table::active, Lamp lamp = {}) {
    Table::Entry* e = table.add(Trouble_code::key(spn, fmi), state);
    e->count = count;
    e->lamp = lamp;
}

TEST(Trouble_code_messages, Lists_of_codes) {
    Table table(700);
    unsigned char bytes[JIN::max_length];
    const auto built = [&](Table::State state, Mode mode, unsigned room = JIN::max_length) {
        Binary_message m(bytes, room);
        build_DM(m, table, state, mode);
        return hex(m);
    };
    add(table, 7, 7, 7, Table::previous, {Lamp::malfunction, Lamp::solid});
    EXPECT_EQ(built(Table::previous, Mode::j1939), "00 FF 07 00 07 07 FF FF") << "lamps are of the active ones";
    add(table, 520192, 12, 126, Table::active, {Lamp::amber_warning, Lamp::slow});
    for (const auto flash : {Lamp::slow, Lamp::fast, Lamp::slow, Lamp::solid})
        add(table, 9, 2 + table.size(), 1, Table::active, {Lamp::red_stop, flash});
    EXPECT_EQ(built(Table::active, Mode::j1939, 9), "14 D3 09 00 07 01 FF FF") << "of all, as the most urgent";
    EXPECT_EQ(built(Table::active, Mode::iso, 7), "");
    for (unsigned n = 0; n < 250; ++n) { // of more than 250 the last that changed are sent
        EXPECT_EQ(built(Table::previous, Mode::iso).size(), std::max(8u, 6 + 4 * n) * 3 - 1);
        add(table, 1000 + n, 3, 1, Table::previous);
    }
    EXPECT_EQ(built(Table::previous, Mode::iso).substr(1002 * 3 - 12), "E8 03 03 01");
}

/// What is not there is not there.
TEST(Trouble_code_messages, Reading_any_length) {
    for (unsigned n = 0; n <= JIN::max_length; ++n) {
        const auto bytes = std::make_unique<unsigned char[]>(n); // of exactly that size
        std::fill_n(bytes.get(), n, 0x11);
        const Binary_message m(bytes.get(), n);
        unsigned codes = 0;
        Trouble_code c;
        while (codes < 446 && Msg_DM(m).code(codes, c)) ++codes;
        EXPECT_VALUES(texts(n < 6 ? 0 : (n - 2) / 4, n >= 8, n >= 8 ? 0x1111 : 0, n >= 6, n >= 8), codes,
                      Msg_DM22(m).valid(), Msg_DM22(m).code().spn, Msg_DM13(m).valid(), Msg_acknowledgment(m).valid());
        EXPECT_EQ(Identification::read_functionalities(m).size(), n < 2 ? 0 : std::min((n - 2) / 20, 17u)) << n;
    }
    for (const unsigned duration : {0u, 5u, 64255u, 64256u}) { // [s]
        unsigned char bytes[8];
        Binary_message m(bytes, sizeof bytes);
        build_DM13(m, Msg_DM13::stop, true, duration);
        const unsigned there = duration % 64256 ? duration : 0xFFFF;
        EXPECT_EQ(hex(m), text_of("3F FF FF 0F %02X %02X FF FF", there & 0xFF, there >> 8));
        EXPECT_EQ(Msg_DM13(m).duration(), duration % 64256);
    }
}

TEST(Trouble_code_text, Comes_back_as_previously_active) {
    Table table, again;
    add(table, 1234, 31, 126);
    add(table, 7, 0, 1, Table::previous);
    const std::string text = to_text(table);
    EXPECT_EQ(text, "00007 00 01 P   \n004D2 1F 7E A   \n");
    // What is no line of ours costs only itself.
    EXPECT_EQ(from_text("00000 00 01 P   \n7FFFF 00 01 P   \n00007 20 01 P   \n00008 00 00 P   \n"
                        "00009 00 7F A   \n0000a 00 01 A   \n-0007 00 01 P   \n00007 00 01 X   \n" +
                            text + std::string(40, '\n'),
                        again),
              2u);
    EXPECT_VALUES("00007 00 01 P   \n004D2 1F 7E P   \n 2", to_text(again), again.count(Table::previous));
    EXPECT_EQ(from_text("", again), 0u);
}

TEST(JIN_frame, Is_a_line_of_a_log) {
    JIN_frame f;
    for (const std::string line : {"(1436509052.249713) can0 18FECA80#FFFFD2041F01FFFF",
                                   "(0000000000.000000) vcan0 1FFFFFFF#", "(2147483647.999999) can0 00000000#00"}) {
        ASSERT_VALUES("true true true", f.read(line), f.read(line + " R"), f.read(line + "\r"));
        EXPECT_EQ(f.to_line(line[1] == '0' ? "vcan0" : "can0"), line);
    }
    for (const char* const bad :
         {"", "(1.249713) can0 123#11", // 11 bits
          "(1.249713) can0 18FECA80#R", "(1.249713) can0 18FECA80##011", "(1.249713) can0 18FECA80#1",
          "(1.249713) can0 18FECA80#112233445566778899", "(1.249713) can0 28FECA80#11", "(1.2497) can0 18FECA80#11",
          "(9999999999.000000) can0 18FECA80#11", "(1.249713)  18FECA80#11", "1.249713 can0 18FECA80#11"})
        EXPECT_FALSE(f.read(bad)) << bad;
}

/// Puts together what it is fed, as "PGN source destination bytes".
struct Assembly {
    void feed(const JIN_frame& f, int64_t ms = 0) { assembler.frame(f.identifier, f.bytes, f.size, ms); }
    std::vector<std::string> got;
    JIN_assembler assembler{[this](const JIN_message& m) {
        got.push_back(texts(m.pgn, m.source, m.destination, std::string(m.data, m.data + m.size)));
    }};
};

TEST(JIN_assembler, Puts_messages_of_any_length_together) {
    for (unsigned n = 0; n <= JIN::max_length; n += n < 30 || n > 1770 ? 1 : 41) {
        Assembly a;
        const std::string bytes = Random(n).bytes(n);
        for (const JIN_frame& f : frames_of(65226, 128, bytes, 0)) a.feed(f);
        for (const JIN_frame& f : frames_of(59392, 3, bytes, 0, 4)) a.feed(f);
        EXPECT_EQ(a.got, (std::vector<std::string>{"65226 128 255 " + bytes, "59392 3 4 " + bytes}));
        EXPECT_EQ(a.assembler.incomplete(), 0u);
    }
    // Talkers are kept apart, the latest 64 of them.
    Assembly a;
    for (size_t frame = 0; frame < 4; ++frame)
        for (unsigned source = 0; source < 70; ++source)
            a.feed(frames_of(65227, source, "20 bytes: 3 packets.", 0)[frame]);
    EXPECT_VALUES("64 6", a.got.size(), a.assembler.incomplete());
}

TEST(JIN_assembler, Gives_up_what_does_not_come_whole) {
    // Of a message to all the announcement 0 and the packets 1 to 3, of one from 3 to 4 a and b to d; another frame,
    // with its bytes; [ms] that pass, from 10 on. Whether it arrives.
    const auto to_all = frames_of(65226, 3, "20 bytes for all ...", 0),
               to_one = frames_of(65226, 3, "20 bytes for one ...", 0, 4);
    for (const std::string text :
         {"+ 0 1 2 3", "+ 0 3 1 1 2", "+ a d b b c", "+ 0 1 2 0 1 2 3", "+ 0 1 2 1400 3",
          "+ a b 1CEC0304#FF01FFFFFFCBFE00 c d", // the end of something else
          "- 0 1 3", "- 1 2 3", "- 0 1 0 2 3", "- 0 1 2 1600 3",
          "- 1CECFF03#20080002FFCAFE00 1 2 3", // too short to be announced
          "- 1CECFF03#20FA06FFFFCAFE00 1 2 3", "- 1CECFF03#20140004FFCAFE00 1 2 3", "- 1CECFF03#20140003FFCAFE 1 2 3",
          "- 1CECFF03#10140003FFCAFE00 1 2 3", "- 1CEC0403#20140003FFCAFE00 b c d",        // of the other kind
          "- a b 1CEC0403#FF01FFFFFFCAFE00 c d", "- a b 1CEC0304#FF01FFFFFFCAFE00 c d"}) { // either side ends it
        Assembly assembly;
        JIN_frame other;
        int64_t ms = 0;
        std::istringstream words(text.substr(1));
        for (std::string s; words >> s;) {
            if (other.read("(0.000000) can0 " + s))
                assembly.feed(other, ms);
            else if (s.size() > 1)
                ms += std::stoi(s);
            else
                assembly.feed(s < "a" ? to_all[s[0] - size_t{'0'}] : to_one[s[0] - size_t{'a'}], ms);
        }
        EXPECT_EQ(assembly.got.size(), text[0] == '+') << text;
    }
}

/// Codes of all nodes.
std::string text_of_codes(const Trouble_code_monitor& monitor, const Atime& now) {
    std::string all;
    for (unsigned a = 0; (a = monitor.next(a)) < JIN::no_address; ++a) {
        const Trouble_code_monitor::Node& n = *monitor.node(a);
        all += text_of("%02X:", a);
        for (const auto& c : n.active) all += text_of(" %u/%u x%u", c.code.spn, c.code.fmi, c.code.count);
        all += (n.silent(now) ? " silent" : "") + (n.has_DM2 ? text_of(" was %zu", n.previous.size()) : "") + "; ";
    }
    return all;
}

/// Codes; the rest of what it keeps shows examples/bus_log.cpp.
TEST(Trouble_code_monitor, Keeps_what_it_hears) {
    const std::string code = "FECA: FF FF D2 04 1F 01 FF FF; ", none = "FECA: FF FF 00 00 00 00 FF FF; ",
                      was = "FECB: FF FF D2 04 1F 01 FF FF; ", claim = " EE00: 01 00 00 00 00 00 00 80; ",
                      other = " EE00: 02 00 00 00 00 00 00 80; ", pass = " FE 3FFFF: 00";
    std::string many = "FECA: FF FF";
    for (int i = 0; i < 250; ++i) many += " 01 00 03 01"; // takes 7 s at 50 ms a packet, and may take 29
    const std::string three = "0 1 " + code + "0 2 " + none + "0 3 " + many + "; ";
    // At a time [s] a node says a PGN with its bytes; what is known in the end.
    const std::pair<std::string, const char*> conversations[] = {
        {"0 80 FECA: FF FF 00 F0 EC 7E D2 04 1F 01 00 F0 EC 7D", "80: 1234/31 x1 520192/12 x126; "}, // one comes twice
        {"0 80 " + code + "0 80 FECA: FF; 0 80 3FFFF: FF FF 00 F0 EC 7E FF FF", "80: 1234/31 x1; "},
        {"0 80 " + code + "0 80 FECA: FF FF FF FF FF FF FF FF", "80:; "},
        {"0 80 " + was, "80: was 1; "},
        {"0 80 " + was + "0 80 FECB: FF FF 00 00 00 00 FF FF", "80: was 0; "},
        // Only a node that has codes may fall silent.
        {three + "3" + pass, "01: 1234/31 x1; 02:; 03: 1/3 x1; "},
        {three + "31" + pass, "01: 1234/31 x1 silent; 02:; 03: 1/3 x1; "},
        {three + "32" + pass, "01: 1234/31 x1 silent; 02:; 03: 1/3 x1 silent; "},
        // A node is who its NAME says: another one with its address has no codes. The last one lost its address.
        {"0 80 " + code + "0 80" + claim, "80: 1234/31 x1; "},
        {"0 80" + claim + "0 80 " + code + "0 80" + other, "80:; "},
        {"0 80" + claim + "0 FE" + claim + "0 FE " + code, ""},
    };
    for (const auto& [steps, expected] : conversations) {
        Trouble_code_monitor monitor;
        Atime now(false);
        std::istringstream all(steps);
        for (std::string step; std::getline(all >> std::ws, step, ';');) {
            unsigned seconds, source, pgn;
            int begin;
            ASSERT_EQ(sscanf(step.c_str(), "%u %x %x: %n", &seconds, &source, &pgn, &begin), 3) << step;
            Bytes bytes(step.substr(static_cast<size_t>(begin)));
            now.time = static_cast<int>(1000 + seconds);
            JIN_message m(pgn, bytes.view().data, bytes.view().size);
            m.source = static_cast<uint8_t>(source);
            EXPECT_EQ(monitor.take(m, now), pgn != JIN::pgn_max && source < 254) << step;
        }
        EXPECT_EQ(text_of_codes(monitor, now), expected) << steps;
    }
}

} // namespace
