// SPDX-License-Identifier: MIT
#include "glue/vorn/GNSS_messages.h"
#include "glue/vorn/Vorn_checkers.h"
#include "support/frame.h"
#include "support/test.h"
#include "vorn/parser_model.h"

namespace {

using namespace std::string_literals;

/// All packets that are there, each as its kind, a blank, its bytes and a bar.
std::string take_all(Vorn_parser& parser, int buf_size = 8192) {
    std::string packets;
    std::vector<unsigned char> buf(static_cast<size_t>(buf_size));
    int len;
    while (const int kind = parser.get_packet(buf.data(), buf_size, len))
        packets += std::to_string(kind) + " " + std::string(buf.begin(), buf.begin() + len) + "|";
    EXPECT_EQ(len, 0);
    return packets;
}

/// Accepts all but one identifier.
class Refuse : public Vorn_parser::Checker {
public:
    bool check(Data_stream& s, unsigned short id, int) override {
        EXPECT_EQ(s[0], id & 0xFF); // the stream's own operations are free to use
        return id != ('X' | 'X' << 8);
    }
};

enum Option { usual = 0, no_line_end = 1, keep = 2, refuse = 4 };

const std::string bad = "\x01"; ///< begins nothing: what follows is hunted through
const std::string sound = Frame("EL").text("0123456789").str(), wrong = std::string(sound).replace(9, 1, "!");

std::string noise(size_t n) { return std::string(n, bad[0]); }

// clang-format off
const struct {
    const char* name;
    std::string input, packets, left = "";
    int options = usual;
    int buf_size = 8192;
} cases[] = {
    {"nothing is taken of fewer than five bytes", "PG00", "", "PG00"},
    {"not even of a line", bad + "\nOK\n", "3 " + bad + "\n|", "OK\n"},
    {"a frame takes one line-end byte, the others go", "PG003abc\r\nPG001d\n", "1 PG003abc\r|1 PG001d\n|"},
    {"identifiers from 0 to ~", "0~001c\r~0001c\r", "1 0~001c\r|1 ~0001c\r|"},
    {"not those beside them", "/~001c\r~\177000\r0/000\r", "3 /~001c\r|3 ~\177000\r|3 0/000\r|"},
    {"a blank line is a text", "\nPG001c\r", "3 \n|1 PG001c\r|"},
    {"text with its run of line ends", bad + "noise\r\n\n\rPG001c\r", "3 " + bad + "noise\r\n\n\r|1 PG001c\r|"},
    {"a refused header: a byte is lost", "XX00A0123456789\r\nPG001c\r", "3 X00A0123456789\r\n|1 PG001c\r|", "", refuse},
    {"or kept", "XX001c\r\nPG001c\r", "3 XX001c\r\n|1 PG001c\r|", "", keep | refuse},
    {"without a line end a byte is lost, the frame inside is found", "PE0001c\r", "1 E0001c\r|"},
    {"the CR of a reply may be any byte", "RE002ok#\n", "2 RE002ok#\n\0\0|"s},
    {"a reply that a lone LF ends is none", "RE002ok\nPG001c\r", "3 002ok\n|1 PG001c\r|"},
    {"nor at the end of the stream", "RE002ok\n", "3 002ok\n|"},
    {"nor one that CR ends without LF", "RE002ok\rPG001c\r", "3 002ok\r|1 PG001c\r|"},
    {"two zeros follow a reply", "RE002ok\r\n", "2 RE002ok\r\n\0\0|"s, "", usual, 11},
    {"if there is room", "RE002ok\r\n", "2 RE002ok\r|", "\n", usual, 8},
    {"the rest of a cut frame is met again", "PG006abcdef\r\n", "1 PG006abc|", "ef\r\n", usual, 8},
    {"save zeros and line ends", "PG006abc\0\r\n\rPG001c\r"s, "1 PG006abc|1 PG001c\r|", "", usual, 8},
    {"LF is appended", "PG001cPG000\r\nRE000\0"s, "1 PG001c\n|1 PG000\n|1 RE000\n|", "", no_line_end},
    {"4189 bytes without line end wait", noise(4189), "", noise(4189)},
    {"4190 of 5000", noise(5000), "", noise(810)},
    {"the 4190th byte may end the line, and the buffer its run", noise(4189) + std::string(12, '\n'),
     "3 " + noise(4189) + std::string(11, '\n') + "|", "\n"},
};
// clang-format on

TEST(Vorn_parser, cuts_packets_by_its_rules_and_reports_a_refusal_with_what_is_buffered) {
    Capture refusals(stderr);
    for (const auto& c : cases) {
        Fed_stream stream(c.input, Fed_stream::pulled);
        strcpy(stream.name, "line 1");
        Vorn_parser parser(&stream, false);
        Refuse refuse_xx;
        if (c.options & refuse) parser.set_checker(&refuse_xx);
        parser.expect_line_end = !(c.options & no_line_end);
        parser.keep_on_reject = c.options & keep;
        EXPECT_EQ(take_all(parser, c.buf_size), c.packets) << c.name;
        EXPECT_EQ(stream.left(), c.left) << c.name;
    }
    EXPECT_EQ(refusals.text(), "Unexpected msg XX(15) in line 1[24]\nUnexpected msg XX(6) in line 1[15]\n");
}

TEST(Vorn_parser, takes_packets_in_each_form_without_a_heap_and_does_not_look_twice) {
    Fed_stream stream("\n\nPG001c\rRE002ok\r\nPG003abc\r" + bad + "2345" + "6789", Fed_stream::pushed, 32);
    Fed_stream other("a\nPG001c\r"), third("PG001c\r"), hesitant("a\r\nbc\n", Fed_stream::hesitant, 1);
    for (Fed_stream* s : {&stream, &other, &third}) s->feed();
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
    EXPECT_EQ(std::string(buf, buf + 9), "PG003abc\r");

    stream.buffer.data[stream.buffer.head + 1] = '\n'; // behind its back, where only a second look would find it
    stream.feed();
    EXPECT_EQ(get(), 0);
    parser.stream = &other;
    EXPECT_EQ(get(), -2) << "what was seen in one stream is nothing to another";
    parser.synced = 0;
    parser.init(&third);
    EXPECT_VALUES("1 true false", parser.synced, third.left().empty(), other.left().empty());
    parser.stream = &hesitant;
    std::string fetches; // of the byte behind the index
    for (const int i : {0, 1, 2, 4, 7})
        fetches += Values{parser.is_newline(i), std::exchange(hesitant.fetches, 0)}.text + ", ";
    EXPECT_EQ(fetches, "false 1, true 1, true 1, false 2, false 1, ");
}

TEST(Vorn_parser, takes_every_frame_that_another_thread_brings) {
    std::string sent, expected, got;
    for (int i = 100000; i < 103000; ++i) {
        const std::string frame = "PG006" + std::to_string(i) + "\r";
        sent += frame;
        expected += "1 " + frame + "|";
    }
    Fed_stream stream(sent, Fed_stream::pushed, 37);
    Vorn_parser parser(&stream, false);
    Refuse checker;
    parser.set_checker(&checker);
    std::thread line([&] {
        while (!stream.dry()) stream.feed();
    });
    EXPECT_TRUE(wait_until([&] { return (got += take_all(parser)).size() >= expected.size(); }));
    line.join();
    EXPECT_EQ(got, expected);
}

TEST(Vorn_checkers, accept_the_lengths_of_the_catalogue_and_right_checksums) {
    const auto accepts = [](Vorn_parser::Checker& checker, const std::string& bytes, int total) {
        Fed_stream stream(bytes, Fed_stream::pulled);
        const bool accepted = checker.check(stream, static_cast<unsigned short>(bytes[0] | bytes[1] << 8), total);
        EXPECT_EQ(stream.left(), bytes) << "a checker only looks";
        return accepted;
    };
    Vorn_length_checker by_length;
    for (const auto& [id, shortest, longest] :
         {std::tuple{"PG", 35, 35}, {"||", 6, 6}, {"EL", 6, 160}, {"SS", 7, 160}, {"NP", 5, 300}, {"gp", 0, 0}})
        for (int total = 5; total <= 4100; ++total)
            ASSERT_EQ(accepts(by_length, id, total), shortest <= total && total <= longest) << id << total;
    std::string text = "EL00A0123456@";
    const std::string sum = text_of("%02X", Vorn_message(&text[0], 13).compute_8bit_checksum(13));
    Vorn_checksum_checker by_checksum;
    const std::string incomplete = wrong.substr(0, wrong.size() - 1);
    for (const std::string& bytes : {sound, sound + wrong, wrong, text + sum, text + "zz", "RE005hello"s, incomplete})
        EXPECT_EQ(accepts(by_checksum, bytes, std::stoi(bytes.substr(2, 3), nullptr, 16) + 5),
                  bytes != wrong && bytes != text + "zz")
            << bytes;
}

TEST(Vorn_checkers, serve_a_parser_as_they_check) {
    const std::string bytes = sound + "\r" + wrong + "\r\nXX003abc\r\nEL0FF\r\n" + sound + "\r" + wrong;
    const auto packets = [&](auto checker, bool serves, Fed_stream::Manner manner) {
        Fed_stream stream(bytes, manner, 7);
        Capture refusals(stderr);
        Vorn_parser parser(&stream, false);
        parser.set_checker(&checker);
        if (serves) checker.serve(parser);
        std::string all;
        for (size_t i = 0; i <= bytes.size() / 7; ++i) {
            stream.feed();
            all += take_all(parser);
        }
        return all + stream.left() + std::to_string(refusals.text().size());
    };
    for (auto manner : {Fed_stream::pushed, Fed_stream::pulled, Fed_stream::hesitant}) {
        const auto asked = packets(Vorn_checksum_checker(), false, manner);
        const auto by_length = packets(Vorn_length_checker(), false, manner);
        EXPECT_EQ(packets(Vorn_checksum_checker(), true, manner), asked) << manner;
        EXPECT_EQ(packets(Vorn_length_checker(), true, manner), by_length) << manner;
        EXPECT_TRUE(asked.rfind("1 " + sound, 0) == 0 && asked != by_length) << manner;
    }
}

TEST(Vorn_checkers, are_asked_again_about_a_frame_that_they_saw_in_part_only) {
    Fed_stream stream(wrong + "\r\n" + sound + "\r", Fed_stream::pushed, 12);
    struct : Vorn_checksum_checker {
        bool check(Data_stream& s, unsigned short id, int total) override {
            const bool accepted = Vorn_checksum_checker::check(s, id, total);
            static_cast<Fed_stream&>(s).feed(); // the line goes on
            return accepted;
        }
    } checker;
    Vorn_parser parser(&stream, false);
    parser.set_checker(&checker);
    stream.feed();
    const Capture refusal(stderr);
    EXPECT_EQ(take_all(parser), "3 " + wrong.substr(1) + "\r\n|1 " + sound + "\r|");
}

} // namespace
