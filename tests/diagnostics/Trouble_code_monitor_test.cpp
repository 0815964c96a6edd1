// SPDX-License-Identifier: MIT
#include "glue/diagnostics/Trouble_code_monitor.h"
#include "glue/jin/JIN_assembler.h"
#include "support/bytes.h"
#include "support/frames.h"
#include "support/test.h"

using namespace Trouble_code_messages;

namespace {

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
