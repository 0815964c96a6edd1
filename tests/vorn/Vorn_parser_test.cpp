// SPDX-License-Identifier: MIT
#include "glue/vorn/GNSS_messages.h"
#include "support/frame.h"
#include "support/test.h"
#include "vorn/parser_model.h"

namespace {

using namespace std::string_literals;

const std::string sound = Frame("EL").text("0123456789").str(), wrong = std::string(sound).replace(9, 1, "!");

TEST(Vorn_parser, takes_packets_in_each_form_without_a_heap_and_does_not_look_twice) {
    Fed_stream stream("\n\nPG001c\rRE002ok\r\nPG003abc\r\1"
                      "23456789",
                      Fed_stream::pushed, 32);
    Fed_stream other("a\nPG001c\r"), third("PG001c\r"), hesitant("a\r\nbc\n", Fed_stream::pulled, 1);
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
    std::optional<Fed_stream> rebuilt;
    for (const auto& [bytes, result] : {std::pair{"#23456789", 0}, {"a\nPG001c\r", -2}}) {
        rebuilt.emplace(bytes); // where the last one was: what was seen in that is nothing to this one either
        parser.init(&*rebuilt);
        rebuilt->feed();
        EXPECT_EQ(get(), result);
    }
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

TEST(Vorn_checkers, accept_the_lengths_of_the_catalogue_and_right_checksums) {
    const Vorn_length_checker by_length;
    for (const auto& [id, shortest, longest] :
         {std::tuple{"PG", 35, 35}, {"||", 6, 6}, {"EL", 6, 160}, {"SS", 7, 160}, {"NP", 5, 300}, {"gp", 0, 0}})
        for (int total = 5; total <= 4100; ++total)
            ASSERT_EQ(by_length.possible(static_cast<unsigned short>(id[0] | id[1] << 8), total),
                      shortest <= total && total <= longest)
                << id << total;
    Vorn_checksum_checker by_checksum;
    for (const std::string& bytes : {sound, sound + wrong, wrong, "RE005hello"s, wrong.substr(0, wrong.size() - 1)}) {
        Fed_stream stream(bytes, Fed_stream::pulled);
        const int total = std::stoi(bytes.substr(2, 3), nullptr, 16) + 5;
        EXPECT_EQ(by_checksum.check(stream, static_cast<unsigned short>(bytes[0] | bytes[1] << 8), total),
                  bytes != wrong)
            << bytes;
        EXPECT_EQ(stream.left(), bytes) << "a checker only looks";
    }
}

} // namespace
