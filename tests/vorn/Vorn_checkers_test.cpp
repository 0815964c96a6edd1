// SPDX-License-Identifier: MIT
#include "glue/vorn/GNSS_messages.h"
#include "glue/vorn/Vorn_checkers.h"
#include "support/capture.h"
#include "vorn/parser_model.h"
#include <gtest/gtest.h>
#include <tuple>

namespace {

/// A frame with the checksum in its last byte.
std::string frame(const char (&wire)[3], std::string body) {
    body = std::string(Vorn_message::header_size, ' ') + body + ' ';
    Vorn_message msg(&body[0], static_cast<uint32_t>(body.size()));
    msg.setup(GNSS_messages::identifier(wire), msg.size);
    msg.set_checksum();
    return body;
}

TEST(Vorn_length_checker, accepts_the_lengths_that_the_catalogue_knows) {
    // The shortest and the longest; none when 0.
    const std::tuple<const char*, int, int> messages[] = {
        {"PG", 35, 35}, {"~~", 10, 10}, {"||", 6, 6},   {"EL", 6, 160}, {"TC", 6, 160},
        {"SS", 7, 160}, {"NP", 5, 300}, {"RE", 5, 300}, {"XX", 0, 0},   {"gp", 0, 0},
    };
    Fed_stream stream;
    Vorn_length_checker checker;
    for (const auto& [wire, shortest, longest] : messages) {
        const auto id = static_cast<unsigned short>(wire[0] | wire[1] << 8);
        for (int total = 5; total <= 4100; ++total) {
            ASSERT_EQ(checker.check(stream, id, total), shortest <= total && total <= longest) << wire << total;
        }
    }
    checker.longest_array = checker.longest_text = 4100;
    EXPECT_TRUE(checker.check(stream, GNSS_messages::id_EL, 4100) && checker.check(stream, GNSS_messages::id_ER, 4100));
    EXPECT_FALSE(checker.check(stream, GNSS_messages::id_PG, 4100));
}

TEST(Vorn_checksum_checker, refuses_a_wrong_checksum_once_the_frame_can_be_had) {
    const std::string sound = frame("EL", "0123456789");
    std::string wrong = sound;
    wrong[9] ^= 1;
    std::string text = "EL00A0123456@";
    char digits[3];
    snprintf(digits, sizeof digits, "%02X", Vorn_message(&text[0], 13).compute_8bit_checksum(13));
    const std::tuple<const char*, std::string, bool> cases[] = {
        {"sound", sound, true},
        {"sound, with what follows", sound + wrong, true},
        {"wrong", wrong, false},
        {"wrong but incomplete", wrong.substr(0, wrong.size() - 1), true},
        {"sound in the text form", text + digits, true},
        {"wrong in the text form", text + "zz", false},
        {"a reply", "RE005hello", true},
        {"too long", frame("EL", std::string(200, 'x')), false},
        {"unknown", frame("XX", "0123456789"), false},
    };
    Vorn_checksum_checker checker;
    for (const auto& [name, bytes, accepted] : cases) {
        for (const auto manner : {Fed_stream::pushed, Fed_stream::pulled}) {
            SCOPED_TRACE(name + std::to_string(manner));
            Fed_stream stream(bytes, manner, 5);
            for (size_t i = 0; i < bytes.size(); ++i) stream.feed();
            const auto id = static_cast<unsigned short>(bytes[0] | bytes[1] << 8);
            const int total = std::stoi(bytes.substr(2, 3), nullptr, 16) + 5;
            EXPECT_EQ(checker.check(stream, id, total), accepted);
            EXPECT_EQ(stream.left(), bytes) << "a checker only looks";
        }
    }
}

/// Sound frames that come through on a line where every 50th frame is spoiled.
int delivered(Vorn_parser::Checker* checker, const std::string& sound, const std::string& spoiled) {
    std::string line;
    for (int i = 0; i < 1000; ++i) line += (i % 50 == 25 ? spoiled : sound) + "\r\n";
    const Capture refusals(stderr);
    Fed_stream stream(line, Fed_stream::pushed, 256);
    Vorn_parser parser(&stream, false);
    parser.set_checker(checker);
    unsigned char packet[8192];
    int n = 0;
    do {
        stream.feed();
        while (const int len = parser.get_packet(packet, sizeof packet))
            n += std::string(packet, packet + std::max(len, 0)) == sound + '\r';
    } while (!stream.dry());
    return n;
}

TEST(Vorn_checkers, with_them_a_damaged_frame_costs_itself_alone) {
    const std::string sound = frame("EL", "abcdefghijklmnopqrstuvwxyz");
    const auto with_length = [&](const char* digits) { return std::string(sound).replace(2, 3, digits); };
    Vorn_length_checker by_length;
    Vorn_checksum_checker by_checksum;
    // Lies that end just where another frame does, so that the frames up to there pass for a body.
    const std::string beyond = with_length("FE9"), within = with_length("081"); // of 120 frames, of 4
    EXPECT_LT(delivered(nullptr, sound, beyond), 500);
    EXPECT_EQ(delivered(&by_length, sound, beyond), 980);
    EXPECT_EQ(delivered(&by_length, sound, within), 980 - 20 * 3);
    EXPECT_EQ(delivered(&by_checksum, sound, beyond), 980);
    EXPECT_EQ(delivered(&by_checksum, sound, within), 980);
}

} // namespace
