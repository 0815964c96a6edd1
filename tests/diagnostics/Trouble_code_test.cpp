// SPDX-License-Identifier: MIT
#include "glue/diagnostics/Trouble_code_monitor.h"
#include "glue/diagnostics/Trouble_code_text.h"
#include "glue/jin/JIN_assembler.h"
#include "support/bytes.h"
#include "support/frames.h"
#include "support/test.h"

using namespace Trouble_code_messages;
using Table = Trouble_code_table;

namespace {

TEST(Trouble_code, Stands_in_four_bytes_whatever_the_pair) {
    unsigned char bytes[4];
    const auto written = [&](const Trouble_code& code) {
        code.write(bytes);
        return hex(bytes, 4);
    };
    EXPECT_EQ(written({1234, 31, 1, false}), "D2 04 1F 01");
    EXPECT_EQ(written({520192, 12, 126, false}), "00 F0 EC 7E");
    EXPECT_EQ(written({0x7FFFF, 31, 127, true}), "FF FF FF FF");
    EXPECT_EQ(written({0, 0, 0, false}), "00 00 00 00");
    unsigned wrong = 0;
    for (uint32_t key = 0; key < 1 << 24; ++key) {
        const Trouble_code sent{key >> 5, uint8_t(key & 31), uint8_t(key % 128), key % 3 == 0};
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
    for (int step = 0; step < 20000; ++step) {
        const uint32_t key = random() % 80 + 32;
        const auto state = static_cast<Table::State>(1 + random() % 3);
        const bool erased = random() % 4 == 0, full = table.size() == 50;
        size_t before = 0;
        for (auto& keys : model) before += keys.size(), keys.remove(key);
        ASSERT_EQ(before, table.size());
        const long allocated = allocations();
        Table::Entry* e = table.find(key);
        const bool found = e != nullptr;
        if (found && erased) table.erase(*e);
        if (found && !erased) table.move(*e, state);
        if (!found) e = table.add(key, state);
        ASSERT_EQ(allocations(), allocated);
        ASSERT_EQ(found, before > model[1].size() + model[2].size() + model[3].size());
        ASSERT_EQ(!e, full && !found && model[Table::previous].empty());
        ASSERT_TRUE(found || !e || (e->key == key && e->count == 0));
        if (full && !found && e) model[Table::previous].pop_back();
        if (e && !(found && erased)) model[state].push_front(key);
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
    EXPECT_EQ(built(Table::active, Mode::iso), "FF FF 00 00 00 00 FF FF");
    add(table, 1234, 31, 1, Table::active, {Lamp::amber_warning, Lamp::slow});
    add(table, 520192, 12, 126, Table::active, {Lamp::amber_warning, Lamp::fast});
    EXPECT_EQ(built(Table::active, Mode::j1939), "04 F7 00 F0 EC 7E D2 04 1F 01");
    EXPECT_EQ(built(Table::previous, Mode::j1939), "00 FF 07 00 07 07 FF FF");
    add(table, 9, 0, 1, Table::active, {Lamp::malfunction, Lamp::solid});
    EXPECT_EQ(built(Table::active, Mode::j1939, 9), "44 F7 09 00 00 01 FF FF") << "lamps of all";
    EXPECT_EQ(built(Table::active, Mode::iso, 7), "");
    // Of more than 250 the last that changed are sent.
    for (unsigned n = 2; n <= 600; ++n) {
        add(table, 1000 + n, 3, 1, Table::previous);
        built(Table::previous, Mode::iso);
        const Msg_DM dm(Binary_message(bytes, 2 + 4 * std::min(n, 250u)));
        Trouble_code newest, oldest;
        EXPECT_VALUES(texts(true, 1000 + n, true, n > 250 ? 751 + n : 7), dm.code(0, newest), newest.spn,
                      dm.code(dm.num_places() - 1, oldest), oldest.spn);
    }

    Lamps lamps;
    for (const auto flash : {Lamp::slow, Lamp::solid, Lamp::fast, Lamp::slow}) lamps.add({Lamp::red_stop, flash});
    lamps.add({Lamp::none, Lamp::fast});
    EXPECT_VALUES(texts(true, Lamp::fast), lamps.on(Lamp::red_stop), lamps.flash(Lamp::red_stop)) << "most urgent";
    EXPECT_VALUES("false false false", lamps.on(Lamp::malfunction), lamps.on(Lamp::none),
                  Lamps::not_used().on(Lamp::malfunction));
}

unsigned num_codes(const Binary_message& m) {
    unsigned found = 0;
    Trouble_code c;
    for (unsigned i = 0; i < 446; ++i) found += Msg_DM(m).code(i, c);
    return found;
}

/// What is not there is not there.
TEST(Trouble_code_messages, Reading_any_length) {
    for (unsigned n = 0; n <= JIN::max_length; ++n) {
        const auto bytes = std::make_unique<unsigned char[]>(n); // of exactly that size
        std::fill_n(bytes.get(), n, 0x11);
        const Binary_message m(bytes.get(), n);
        EXPECT_VALUES(texts(n < 6 ? 0 : (n - 2) / 4, n >= 8, n >= 8 ? 0x1111 : 0, n >= 6, n >= 8), num_codes(m),
                      Msg_DM22(m).valid(), Msg_DM22(m).code().spn, Msg_DM13(m).valid(), Msg_acknowledgment(m).valid());
    }
    const std::pair<const char*, unsigned> table[] = {{"03 FF 00 00 00 00 FF FF", 0},       // as trucks send it
                                                      {"FF FF FF FF FF FF FF FF", 0},       // SPN 524287
                                                      {"FF FF D2 04 1F 01 FF FF", 1},       // padding is no code
                                                      {"FF FF D2 04 1F FF 00 00 00 00", 1}, // 127, the old method
                                                      {"FF FF FE FF FF 01 FF FF", 1}};      // SPN 524286, FMI 31
    for (const auto& [text, codes] : table) EXPECT_EQ(num_codes(Bytes(text).view()), codes) << text;
    for (const unsigned duration : {0u, 5u, 64255u, 64256u}) { // [s]
        unsigned char bytes[8];
        Binary_message m(bytes, sizeof bytes);
        build_DM13(m, Msg_DM13::stop, true, duration);
        EXPECT_EQ(Msg_DM13(m).duration(), duration % 64256);
        const unsigned there = duration % 64256 ? duration : 0xFFFF;
        EXPECT_EQ(hex(m), text_of("3F FF FF 0F %02X %02X FF FF", there & 0xFF, there >> 8));
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

/// Collects what is put together.
struct Assembly {
    void feed(const JIN_frame& f, int64_t ms = 0) { assembler.frame(f.identifier, f.bytes, f.size, ms); }
    std::vector<std::string> got;
    JIN_assembler assembler{[this](const JIN_message& m) {
        got.push_back(texts(m.pgn, m.source, m.destination) + " " +
                      std::string(reinterpret_cast<const char*>(m.data), m.size));
    }};
};

std::string counted(size_t n) {
    std::string s;
    for (size_t i = 0; i < n; ++i) s += static_cast<char>('a' + i % 26);
    return s;
}

TEST(JIN_assembler, Puts_messages_of_any_length_together) {
    for (size_t n = 0; n <= JIN::max_length; n += n < 30 || n > 1770 ? 1 : 41) {
        Assembly a;
        for (const JIN_frame& f : frames_of(65226, 128, counted(n), 0)) a.feed(f);
        for (const JIN_frame& f : frames_of(59392, 3, counted(n), 0, 4)) a.feed(f);
        EXPECT_EQ(a.got, (std::vector<std::string>{"65226 128 255 " + counted(n), "59392 3 4 " + counted(n)}));
        EXPECT_EQ(a.assembler.incomplete(), 0u);
    }
}

TEST(JIN_assembler, Keeps_talkers_apart_and_the_latest_64_of_them) {
    Assembly a;
    std::vector<std::vector<JIN_frame>> talks;
    for (unsigned source = 0; source < 70; ++source) talks.push_back(frames_of(65227, source, counted(100), source));
    for (size_t i = 0; i < talks[0].size(); ++i)
        for (const auto& talk : talks) a.feed(talk[i]);
    EXPECT_VALUES("64 6", a.got.size(), a.assembler.incomplete());
}

/// Of a message to all the announcement 0 and the packets 1 to 3, of one from 3 to 4 a and b to d; another frame, with
/// its bytes; [ms] that pass, from 10 on.
bool arrives(const std::string& text) {
    const auto to_all = frames_of(65226, 3, counted(20), 0), to_one = frames_of(65226, 3, counted(20), 0, 4);
    Assembly assembly;
    JIN_frame other;
    int64_t ms = 0;
    std::istringstream words(text);
    for (std::string s; words >> s;) {
        if (other.read("(0.000000) can0 " + s))
            assembly.feed(other, ms);
        else if (s.size() > 1)
            ms += std::stoi(s);
        else
            assembly.feed(s < "a" ? to_all[s[0] - size_t{'0'}] : to_one[s[0] - size_t{'a'}], ms);
    }
    return !assembly.got.empty();
}

TEST(JIN_assembler, Gives_up_what_does_not_come_whole) {
    for (const char* const text : {"0 1 2 3", "0 3 1 1 2", "a d b b c", "0 1 2 0 1 2 3", "0 1 2 1400 3",
                                   "a b 1CEC0304#FF01FFFFFFCBFE00 c d"}) // the end of something else
        EXPECT_TRUE(arrives(text)) << text;
    for (const char* const text :
         {"0 1 3", "1 2 3", "0 1 0 2 3", "0 1 2 1600 3",
          "1CECFF03#20080002FFCAFE00 1 2 3", // too short to be announced
          "1CECFF03#20FA06FFFFCAFE00 1 2 3", "1CECFF03#20140004FFCAFE00 1 2 3", "1CECFF03#20140003FFCAFE 1 2 3",
          "1CECFF03#10140003FFCAFE00 1 2 3", "1CEC0403#20140003FFCAFE00 b c d",      // of the other kind
          "a b 1CEC0403#FF01FFFFFFCAFE00 c d", "a b 1CEC0304#FF01FFFFFFCAFE00 c d"}) // either side ends it
        EXPECT_FALSE(arrives(text)) << text;
}

/// Everything that is known of all nodes.
std::string text_of_nodes(const Trouble_code_monitor& monitor, const Atime& now) {
    std::string all;
    for (unsigned a = 0; (a = monitor.next(a)) < JIN::no_address; ++a) {
        const Trouble_code_monitor::Node& n = *monitor.node(a);
        all += text_of("%s%u:", all.empty() ? "" : "; ", a);
        if (n.name.is_set()) all += " number " + texts(n.name.identity_number());
        for (const auto& c : n.active)
            all += text_of(" %u/%u x%u%s %d-%d", c.code.spn, c.code.fmi, c.code.count, c.code.old_method ? " old" : "",
                           c.first.time - 1000, c.last.time - 1000);
        if (n.has_DM1 && n.lamps.on(Lamp::red_stop)) all += " stop";
        if (n.silent(now)) all += " silent";
        if (n.has_DM2) all += " previous " + texts(n.previous.size());
        for (const auto* const fields : {&n.software, &n.product, &n.ECU})
            for (const std::string& s : *fields) all += " '" + s + "'";
        if (n.has_protocols) all += " protocols " + texts(n.protocols);
        for (const auto& f : n.functionalities) all += text_of(" functionality %u %zu", f.id, f.options.size());
        if (n.has_certificate) all += " certificate " + texts(n.certificate.year);
    }
    return all;
}

TEST(Trouble_code_monitor, Keeps_what_it_hears) {
    const uint32_t claim = JIN::pgn_address_claimed, nothing = JIN::pgn_max;
    const std::string first = "01 00 00 00 00 00 00 80", second = "02 00 00 00 00 00 00 80",
                      code = "FF FF D2 04 1F 01 FF FF", no_code = "FF FF 00 00 00 00 FF FF";
    std::string many = "FF FF";
    for (int i = 0; i < 250; ++i) many += " 01 00 03 01";
    struct Step {
        int at; ///< [s]
        unsigned source;
        uint32_t pgn;
        std::string bytes, nodes;
    };
    const std::vector<Step> conversations[] = {
        {{0, 128, pgn_DM1, "10 FF D2 04 1F 01 FF FF", "128: 1234/31 x1 0-0 stop"},
         {1, 128, pgn_DM1, "00 FF 00 F0 EC 7E D2 04 1F 01 00 F0 EC 7D", // one comes twice
          "128: 1234/31 x1 0-1 520192/12 x126 1-1"},
         {2, 128, pgn_DM1, "00 FF 00 F0 EC FF", "128: 520192/12 x127 old 1-2"},
         {2, 128, pgn_DM1, "FF", "128: 520192/12 x127 old 1-2"}, // no message at all
         {2, 128, pgn_DM1, "FF FF FF FF FF FF FF FF", "128:"},
         {2, 128, pgn_DM2, code, "128: previous 1"},
         {2, 128, pgn_DM2, no_code, "128: previous 0"},
         {2, 128, nothing, code, "128: previous 0"}},
        // A node that has codes does not fall silent. Many of them take 7 s at 50 ms a packet, and may take 29.
        {{0, 1, pgn_DM1, code, "1: 1234/31 x1 0-0"},
         {0, 2, pgn_DM1, no_code, "1: 1234/31 x1 0-0; 2:"},
         {0, 3, pgn_DM1, many, "1: 1234/31 x1 0-0; 2:; 3: 1/3 x1 0-0"},
         {3, 254, nothing, "", "1: 1234/31 x1 0-0; 2:; 3: 1/3 x1 0-0"},
         {4, 254, nothing, "", "1: 1234/31 x1 0-0 silent; 2:; 3: 1/3 x1 0-0"},
         {30, 254, nothing, "", "1: 1234/31 x1 0-0 silent; 2:; 3: 1/3 x1 0-0"},
         {40, 254, nothing, "", "1: 1234/31 x1 0-0 silent; 2:; 3: 1/3 x1 0-0 silent"}},
        // A node is who its NAME says.
        {{0, 128, claim, first, "128: number 1"},
         {0, 128, pgn_DM1, code, "128: number 1 1234/31 x1 0-0"},
         {0, 200, claim, first, "200: number 1 1234/31 x1 0-0"}, // its codes go with it
         {0, 200, claim, second, "200: number 2"},
         {0, 254, claim, second, ""}, // lost its address
         {0, 254, pgn_DM1, code, ""},
         {0, 255, pgn_DM1, code, ""}},
        {{0, 5, Identification::pgn_software, "02 41 31 2A 2A", "5: 'A1' ''"}},
        {{0, 5, Identification::pgn_product, "41 2A 2A 42 2A FF FF FF", "5: 'A' '' 'B'"}},
        {{0, 5, Identification::pgn_ECU, "41 07 2A 42", "5: 'A_' 'B'"}}, // a control character, no end
        {{0, 5, Identification::pgn_protocol, "05 FF FF FF FF FF FF FF", "5: protocols 5"}},
        {{0, 5, Identification::pgn_functionalities, "FF 02 00 01 01 00 0D 01 05 01", "5: functionality 0 1"}}, // cut
        {{0, 5, Identification::pgn_certificate, "58 73 B4 00 00 FF FF FF", "5: certificate 2024"}},
    };
    for (const auto& conversation : conversations) {
        Trouble_code_monitor monitor;
        for (const Step& step : conversation) {
            Atime now(false);
            now.time = 1000 + step.at;
            Bytes bytes(step.bytes);
            JIN_message m(step.pgn, bytes.view().data, bytes.view().size);
            m.source = static_cast<uint8_t>(step.source);
            EXPECT_EQ(monitor.take(m, now), step.pgn != nothing && step.source < 254) << "of use to it";
            EXPECT_EQ(text_of_nodes(monitor, now), step.nodes) << step.bytes << " from " << step.source;
        }
    }
}

} // namespace
