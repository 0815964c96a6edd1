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
    void feed(const std::vector<JIN_frame>& frames) {
        for (const JIN_frame& f : frames) assembler.frame(f.identifier, f.bytes, f.size, f.us / 1000);
    }
    std::vector<std::string> got;
    JIN_assembler assembler{[this](const JIN_message& m) {
        got.push_back(std::to_string(m.pgn) + " " + std::to_string(m.source) + ">" + std::to_string(m.destination) +
                      " " + std::string(reinterpret_cast<const char*>(m.data), m.size));
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
        a.feed(frames_of(65226, 128, counted(n), 0));
        a.feed(frames_of(59392, 3, counted(n), 0, 4));
        EXPECT_EQ(a.got, (std::vector<std::string>{"65226 128>255 " + counted(n), "59392 3>4 " + counted(n)})) << n;
        EXPECT_EQ(a.assembler.incomplete(), 0u);
    }
}

TEST(JIN_assembler, Keeps_talkers_apart_and_gives_up_what_does_not_come_whole) {
    Assembly a;
    std::vector<std::vector<JIN_frame>> talks;
    for (unsigned source = 0; source < 70; ++source) talks.push_back(frames_of(65227, source, counted(100), source));
    for (size_t i = 0; i < talks[0].size(); ++i)
        for (const auto& talk : talks) a.feed({talk[i]});
    EXPECT_EQ(a.got.size(), 64u);
    EXPECT_EQ(a.assembler.incomplete(), 6u) << "the first ones made room";
}

TEST(JIN_assembler, Puts_together_what_comes_whole) {
    const struct {
        unsigned to;        ///< from 3, 20 bytes
        const char* frames; ///< announcement 0, packets 1 to 3, [ms] between them, or another frame of the protocol
        bool arrives;
    } table[] = {{255, "0 1 2 3", true},
                 {4, "0 3 1 1 2", true},
                 {255, "0 1 3", false},
                 {255, "1 2 3", false},
                 {255, "0 1 0 2 3", false},
                 {255, "0 1 2 0 1 2 3", true},
                 {255, "0 1 2 1400 3", true},
                 {255, "0 1 2 1600 3", false},
                 // Wrong announcements
                 {255, "1CECFF03:20080002FFCAFE00 1 2 3", false},
                 {255, "1CECFF03:20FA06FFFFCAFE00 1 2 3", false},
                 {255, "1CECFF03:20140004FFCAFE00 1 2 3", false},
                 {255, "1CECFF03:20140003FFCAFE 1 2 3", false},
                 {255, "1CECFF03:10140003FFCAFE00 1 2 3", false},
                 {4, "1CEC0403:20140003FFCAFE00 1 2 3", false},
                 // An end by either side, and of something else
                 {4, "0 1 1CEC0403:FF01FFFFFFCAFE00 2 3", false},
                 {4, "0 1 1CEC0304:FF01FFFFFFCAFE00 2 3", false},
                 {4, "0 1 1CEC0304:FF01FFFFFFCBFE00 2 3", true}};
    for (const auto& row : table) {
        Assembly a;
        std::vector<JIN_frame> whole = frames_of(65226, 3, counted(20), 0, row.to);
        std::istringstream frames(row.frames);
        int64_t ms = 0;
        for (std::string s; frames >> s;) {
            JIN_frame f;
            if (const size_t colon = s.find(':'); colon != std::string::npos) {
                ASSERT_TRUE(f.read("(0.000000) can0 " + s.replace(colon, 1, "#")));
            } else if (std::stoi(s) < 10) {
                f = whole[static_cast<size_t>(std::stoi(s))];
            } else {
                ms += std::stoi(s);
                continue;
            }
            a.assembler.frame(f.identifier, f.bytes, f.size, ms);
        }
        EXPECT_EQ(a.got.size(), row.arrives) << row.frames;
    }
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
