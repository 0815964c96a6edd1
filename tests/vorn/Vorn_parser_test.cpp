// SPDX-License-Identifier: MIT
#include "glue/vorn/GNSS_messages.h"
#include "support/frame.h"
#include "support/stress.h"
#include "support/test.h"
#include "vorn/parser_model.h"

namespace {

using namespace std::string_literals;

const std::string sound = Frame("EL").text("0123456789").str(), wrong = std::string(sound).replace(9, 1, "!");

TEST(Vorn_parser, cuts_the_packets_that_its_slow_model_cuts) {
    const std::string words[] = {
        "PG",   "RE",       "ER",    "EL",     "~0",         "0/",           "\177",       "0",
        "00",   "000",      "001c",  "003abc", "00G1",       "FFF",          "\r",         "\n",
        "\r\n", "\0"s,      "\0\0"s, "\1",     "\1\1",       "\r\n\n\r",     "RE002ok\n",  "RE002ok\r\n",
        sound,  "PG001c\r", "RE000", wrong,    sound + "\r", wrong + "\r\n", "ER002ok#\n", "NP00Bwhat is it"};
    Debug_print::set_debug_file("/dev/null"); // refusals
    // The 4190th byte may end the line, and the buffer its run.
    EXPECT_EQ(difference(std::string(6, 0) + std::string(4189, 1) + std::string(12, '\n')), "");
    Random c(1);
    for (int round = 0; round < 2000; ++round) {
        std::string input = {char(c(3)),  char(c(4) ? c(20) : c(256)), char(c(8)),
                             char(c(32)), char(c(4) ? 0 : c(256)),     0};
        for (size_t n = 1 + c(30); n > 0; --n) input += words[c(std::size(words))];
        if (round % 40 == 0) input.insert(6 + c(input.size() - 6), std::string(4185 + c(20u), 1)).append(c(20u), '\n');
        ASSERT_EQ(difference(input), "") << round << ": " << input;
    }
}

TEST(Vorn_parser, takes_packets_in_each_form_without_a_heap_and_does_not_look_twice) {
    Fed_stream stream("\n\nPG001c\rRE002ok\r\nPG003abc\r\1"
                      "23456789",
                      Fed_stream::pushed, 32);
    Fed_stream other("a\nPG001c\r"), third("PG001c\r"), hesitant("a\r\nbc\n", Fed_stream::hesitant, 1);
    Fed_stream refused("XX00A0123456789\r\nPG001c\r");
    for (Fed_stream* s : {&stream, &other, &third, &refused}) s->feed();
    Vorn_parser parser(&stream, false);
    unsigned char buf[64];
    Vorn_message msg(buf, sizeof buf);
    int len;
    const auto get = [&] { return parser.get_packet(buf, sizeof buf); };
    const long before = allocations();
    EXPECT_VALUES("-2 7 0", get(), get(), get()) << "the reply is consumed";
    EXPECT_VALUES("1 0", parser.get_packet(nullptr, 0, len), len) << "what has no room stays";
    EXPECT_VALUES("1 9 64", parser.get_packet(msg, len), len, msg.size);
    EXPECT_VALUES("0 0", get(), parser.synced);
    EXPECT_VALUES(texts(true, before), before > 0, allocations());

    stream.buffer.data[stream.buffer.head + 1] = '\n'; // behind its back, where only a second look would find it
    stream.feed();
    EXPECT_EQ(get(), 0);
    parser.stream = &other;
    EXPECT_EQ(get(), -2) << "what was seen in one stream is nothing to another";
    parser.synced = 0;
    parser.init(&third);
    EXPECT_VALUES("1 true false", parser.synced, third.left().empty(), other.left().empty());
    Vorn_length_checker checker;
    parser.set_checker(&checker);
    parser.stream = &refused;
    strcpy(refused.name, "line 1");
    EXPECT_EQ(debug_text(get), "Unexpected msg XX(15) in line 1[24]\n");
    parser.stream = &hesitant;
    std::string fetches; // of the byte behind the index
    for (const int i : {0, 1, 2, 4, 7})
        fetches += Values{parser.is_newline(i), std::exchange(hesitant.fetches, 0)}.text + ", ";
    EXPECT_EQ(fetches, "false 1, true 1, true 1, false 2, false 1, ");
}

TEST(Vorn_parser, takes_every_frame_that_another_thread_brings) {
    std::string sent;
    for (int i = 0; i < 3000; ++i) sent += sound + "\r";
    Fed_stream stream(sent, Fed_stream::pushed, 37);
    Vorn_parser parser(&stream, false);
    Vorn_checksum_checker checker;
    parser.set_checker(&checker);
    std::thread line([&] {
        while (!stream.dry()) stream.feed();
    });
    std::string got;
    unsigned char packet[64];
    const auto all_come = [&] {
        while (const int n = parser.get_packet(packet, sizeof packet)) got.append(packet, packet + n);
        return got.size() >= sent.size();
    };
    EXPECT_TRUE(wait_until(all_come));
    line.join();
    EXPECT_TRUE(got == sent) << got.size();
}

TEST(Vorn_checkers, accept_the_lengths_of_the_catalogue_and_right_checksums) {
    const Vorn_length_checker by_length;
    for (const auto& [id, shortest, longest] :
         {std::tuple{"PG", 35, 35}, {"||", 6, 6}, {"EL", 6, 160}, {"SS", 7, 160}, {"NP", 5, 300}, {"gp", 0, 0}})
        for (int total = 5; total <= 4100; ++total)
            ASSERT_EQ(by_length.possible(static_cast<unsigned short>(id[0] | id[1] << 8), total),
                      shortest <= total && total <= longest)
                << id << total;
    std::string text = "EL00A0123456@";
    const std::string sum = text_of("%02X", Vorn_message(&text[0], 13).compute_8bit_checksum(13));
    Vorn_checksum_checker by_checksum;
    const std::string incomplete = wrong.substr(0, wrong.size() - 1);
    for (const std::string& bytes : {sound, sound + wrong, wrong, text + sum, text + "zz", "RE005hello"s, incomplete}) {
        Fed_stream stream(bytes, Fed_stream::pulled);
        const int total = std::stoi(bytes.substr(2, 3), nullptr, 16) + 5;
        EXPECT_EQ(by_checksum.check(stream, static_cast<unsigned short>(bytes[0] | bytes[1] << 8), total),
                  bytes != wrong && bytes != text + "zz")
            << bytes;
        EXPECT_EQ(stream.left(), bytes) << "a checker only looks";
    }
}

} // namespace
