// SPDX-License-Identifier: MIT
#include "glue/diagnostics/Trouble_code_monitor.h"
#include "glue/jin/JIN_assembler.h"
#include "support/bytes.h"
#include "support/frames.h"
#include "support/test.h"

using namespace Trouble_code_messages;

namespace {

TEST(JIN_frame, Is_a_line_of_a_log) {
    const char* const good[] = {"(1436509052.249713) can0 18FECA80#FFFFD2041F01FFFF",
                                "(0000000000.000000) vcan0 1FFFFFFF#", "(2147483647.999999) can0 00000000#00"};
    for (const std::string line : good) {
        JIN_frame f;
        ASSERT_VALUES("true true true", f.read(line), f.read(line + " R"), f.read(line + "\r"));
        EXPECT_EQ(f.to_line(line[1] == '0' ? "vcan0" : "can0"), line);
    }
    const char* const bad[] = {"",
                               "(1.249713) can0 123#11", // 11 bits
                               "(1.249713) can0 18FECA80#R",
                               "(1.249713) can0 18FECA80##011",
                               "(1.249713) can0 18FECA80#1",
                               "(1.249713) can0 18FECA80#112233445566778899",
                               "(1.249713) can0 28FECA80#11",
                               "(1.2497) can0 18FECA80#11",
                               "(9999999999.000000) can0 18FECA80#11",
                               "(1.249713)  18FECA80#11",
                               "1.249713 can0 18FECA80#11"};
    JIN_frame f;
    for (const char* line : bad) EXPECT_FALSE(f.read(line)) << line;
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

    const auto whole = frames_of(65226, 1, counted(20), 0); // announcement, 3 packets
    using Order = std::vector<size_t>;
    const struct {
        Order order;
        int pause; ///< [ms] before the last frame
        bool arrives;
    } table[] = {{{0, 1, 2, 3}, 0, true},     {{0, 3, 1, 1, 2}, 0, true},      {{0, 1, 3}, 0, false},
                 {{1, 2, 3}, 0, false},       {{0, 1, 0, 2, 3}, 0, false},     {{0, 1, 2, 3}, 1400, true},
                 {{0, 1, 2, 3}, 1600, false}, {{0, 1, 2, 0, 1, 2, 3}, 0, true}};
    for (const auto& row : table) {
        Assembly one;
        for (size_t i = 0; i < row.order.size(); ++i) {
            JIN_frame f = whole[row.order[i]];
            f.us = 0;
            if (i + 1 == row.order.size()) f.us += row.pause * 1000;
            one.feed({f});
        }
        EXPECT_EQ(one.got.size(), row.arrives) << &row - table;
    }
    // Wrong announcements, and an end by either side.
    for (const char* bytes : {"20 08 00 02 FF CA FE 00", "20 FA 06 FF FF CA FE 00", "20 14 00 04 FF CA FE 00",
                              "20 14 00 03 FF CA FE", "10 14 00 03 FF CA FE 00"}) {
        Assembly one;
        Bytes announcement(bytes);
        one.assembler.frame(0x1CECFF01, announcement.view().data, announcement.view().size, 0);
        one.feed({whole[1], whole[2], whole[3]});
        EXPECT_TRUE(one.got.empty()) << bytes;
    }
    for (const uint32_t by : {0x1CEC0403u, 0x1CEC0304u}) {
        Assembly one;
        const auto frames = frames_of(65226, 3, counted(20), 0, 4);
        one.feed({frames[0], frames[1]});
        Bytes abort("FF 01 FF FF FF CA FE 00");
        one.assembler.frame(by, abort.view().data, 8, 0);
        one.feed({frames[2], frames[3]});
        EXPECT_VALUES("true 1", one.got.empty(), one.assembler.incomplete());
    }
}

class Monitor : public testing::Test {
protected:
    bool take(uint32_t pgn, const std::string& text, unsigned source = 128) {
        Bytes bytes(text);
        const Binary_message b = bytes.view();
        JIN_message m(pgn, b.data, b.size);
        m.source = static_cast<uint8_t>(source);
        return monitor.take(m, now);
    }
    const Trouble_code_monitor::Node& node(unsigned a = 128) const { return *monitor.node(a); }
    std::string codes(unsigned a = 128) const {
        std::string all;
        for (const auto& c : node(a).active)
            all += std::to_string(c.code.spn) + "/" + std::to_string(c.code.fmi) + " x" + std::to_string(c.code.count) +
                   " " + std::to_string(c.first.time - 1000) + "-" + std::to_string(c.last.time - 1000) + ", ";
        return all;
    }
    void at(int seconds) { now.time = 1000 + seconds; }

    Trouble_code_monitor monitor;
    Atime now{false};
};

TEST_F(Monitor, Keeps_codes_with_their_times) {
    at(0);
    take(pgn_DM1, "04 FF D2 04 1F 01 FF FF");
    at(1);
    take(pgn_DM1, "04 FF 00 F0 EC 7E D2 04 1F 01 00 F0 EC 7D"); // one comes twice
    EXPECT_EQ(codes(), "1234/31 x1 0-1, 520192/12 x126 1-1, ");
    EXPECT_TRUE(node().lamps.on(Lamp::amber_warning));
    at(2);
    take(pgn_DM1, "03 FF 00 F0 EC FF");
    EXPECT_EQ(codes(), "520192/12 x127 1-2, ");
    EXPECT_TRUE(node().active[0].code.old_method);
    take(pgn_DM1, "FF");
    EXPECT_EQ(codes(), "520192/12 x127 1-2, ") << "no message at all";
    take(pgn_DM1, "FF FF FF FF FF FF FF FF");
    EXPECT_EQ(codes(), "");
    take(pgn_DM2, "FF FF D2 04 1F 01 FF FF");
    EXPECT_VALUES("true 1 true", node().has_DM2, node().previous.size(), node().active.empty());
}

TEST_F(Monitor, Doubts_a_node_that_fell_silent_with_codes_only) {
    at(0);
    take(pgn_DM1, "FF FF D2 04 1F 01 FF FF", 1);
    take(pgn_DM1, "FF FF 00 00 00 00 FF FF", 2);
    std::string many = "FF FF";
    for (int i = 0; i < 250; ++i) many += " 01 00 " + std::string(i % 2 ? "01" : "02") + " 01";
    take(pgn_DM1, many, 3); // takes 7 s at 50 ms a packet, and may take 29
    const struct {
        int seconds;
        bool silent[3];
    } table[] = {
        {3, {false, false, false}}, {4, {true, false, false}}, {30, {true, false, false}}, {40, {true, false, true}}};
    for (const auto& row : table) {
        at(row.seconds);
        for (unsigned a = 1; a <= 3; ++a) EXPECT_EQ(node(a).silent(now), row.silent[a - 1]) << row.seconds << " " << a;
    }
}

TEST_F(Monitor, Knows_nodes_by_their_NAME) {
    const std::string first = "01 00 00 00 00 00 00 80", second = "02 00 00 00 00 00 00 80";
    take(JIN::pgn_address_claimed, first);
    take(pgn_DM1, "FF FF D2 04 1F 01 FF FF");
    take(JIN::pgn_address_claimed, first, 200);
    EXPECT_EQ(monitor.node(128), nullptr);
    EXPECT_EQ(node(200).active.size(), 1u) << "its codes went with it";
    take(JIN::pgn_address_claimed, second, 200);
    EXPECT_TRUE(node(200).active.empty()) << "another node";
    EXPECT_EQ(node(200).name.identity_number(), 2u);
    take(JIN::pgn_address_claimed, second, 254);
    EXPECT_EQ(monitor.next(0), 254u) << "it lost its address";
    take(pgn_DM1, "FF FF D2 04 1F 01 FF FF", 254);
    take(pgn_DM1, "FF FF D2 04 1F 01 FF FF", 255);
    EXPECT_EQ(monitor.next(0), 254u);
}

TEST_F(Monitor, Keeps_what_was_identified) {
    take(Identification::pgn_software, "02 41 31 2A 2A");
    take(Identification::pgn_product, "41 2A 2A 42 2A FF FF FF");
    take(Identification::pgn_ECU, "41 07 2A 42"); // a control character, no end
    take(Identification::pgn_protocol, "05 FF FF FF FF FF FF FF");
    take(Identification::pgn_functionalities, "FF 02 00 01 01 00 0D 01 05 01"); // cut short
    take(Identification::pgn_certificate, "58 73 B4 00 00 FF FF FF");
    EXPECT_VALUES("true false", take(pgn_DM2, "FF FF 00 00 00 00 FF FF"), take(65280, "01")) << "of no use to it";
    using Texts = std::vector<std::string>;
    EXPECT_EQ(node().software, (Texts{"A1", ""}));
    EXPECT_EQ(node().product, (Texts{"A", "", "B"}));
    EXPECT_EQ(node().ECU, (Texts{"A_", "B"}));
    EXPECT_EQ(node().protocols, 5);
    EXPECT_EQ(node().functionalities.size(), 1u);
    EXPECT_VALUES("true 2024", node().has_certificate, node().certificate.year);
}

} // namespace
