// SPDX-License-Identifier: MIT
// A line that spoils one frame in twenty, one kind of fault at a time: what the parser makes of it is what its slow
// model makes of it, and with the checkers and the salvage the sound frames around a fault arrive. With --nightly
// 400,000 frames from each of three seeds.
#include "glue/vorn/GNSS_messages.h"
#include "glue/vorn/Vorn_checkers.h"
#include "glue/vorn/Vorn_salvage.h"
#include "support/frame.h"
#include "support/stress.h"
#include "support/test.h"
#include "vorn/parser_model.h"

namespace {

constexpr const char* identifiers[] = {"E1", "E2", "EC", "NN", "SI", "SS", "EL", "AZ", "TC"};

/// With a body of any bytes, of any but line ends, of many line ends, or of printable ones.
std::string sent_frame(Random& c, unsigned number) {
    enum { any_bytes, no_line_ends, many_line_ends, printable };
    for (const int kind = c(4);;) {
        std::string body;
        for (int shift = 28; shift >= 0; shift -= 4) body += static_cast<char>('g' + (number >> shift) % 16);
        for (unsigned n = c(53); n > 0; --n)
            body += kind == printable                 ? c.bytes(1, ' ', 95)
                    : kind == many_line_ends && !c(8) ? std::string(1, "\r\n"[c(2)])
                                                      : c.bytes(1);
        const std::string frame = Frame(identifiers[c(9)]).text(body).str();
        if (kind % 2 == 0 || frame.find_first_of("\r\n") == std::string::npos) return frame;
    }
}

std::string with_length(std::string frame, size_t length) {
    return frame.replace(2, 3, text_of("%03X", static_cast<unsigned>(length) & 0xFFF));
}
std::string wrong_speed(Random& c) {
    std::string noise = c.bytes(200, 0, 16);
    for (char& x : noise) x = "\x00\x80\xC0\xE0\xF0\xF8\xFC\xFE\xFF\x1E\x66\x78\x86\x98\x9E\xE6"[int(x)];
    return noise;
}
// One draw a statement: the order within one is the compiler's.
std::string like_a_header(Random& c) {
    const std::string identifier = identifiers[c(9)];
    const std::string header = with_length(identifier + "000", c(4096));
    return header + c.bytes(c(21));
}
std::string with_loss(Random& c, std::string frame) {
    const size_t at = c(frame.size() - 8);
    return frame.erase(at, 1 + c(8));
}
std::string with_length_off(Random& c, const std::string& frame) {
    const size_t by = 1 + c(3u), right = frame.size() - 5;
    return with_length(frame, c(2) ? right + by : right - by);
}
/// What may be lost: nothing, see the test; `refused` the frame itself.
enum Bound { harmless, around, inside, refused };

#define BYTES(expression) [](Random& c [[maybe_unused]], std::string f) -> std::string { return expression; }
const struct Fault {
    const char* name;
    Bound bound;
    bool sound; ///< the frame itself counts among those that should arrive
    std::string (*bytes)(Random& c, std::string frame);
} faults[] = {
    {"LF behind", harmless, true, BYTES(f + "\n")},
    {"CR LF CR LF behind", harmless, true, BYTES(f + "\r\n\r\n")},
    {"zeros before", harmless, true, BYTES(std::string(1 + c(8), 0) + f + "\r\n")},
    {"frame twice", harmless, true, BYTES(f + "\r\n" + f + "\r\n")},
    {"reply before", harmless, true, BYTES("RE007%abc%ok\r\n" + f + "\r\n")},
    {"reply without LF before", harmless, true, BYTES("ER007%abc%ok\r" + f + "\r\n")},
    {"length without digits", harmless, true, BYTES("EL0G1abc\r\n" + f + "\r\n")},
    {"1-64 bytes and LF before", harmless, true, BYTES(c.bytes(1 + c(64)) + "\n" + f + "\r\n")},
    {"1-64 bytes before", around, true, BYTES(c.bytes(1 + c(64)) + f + "\r\n")},
    {"200 bytes at a wrong speed", around, true, BYTES(wrong_speed(c) + f + "\r\n")},
    {"what looks like a header", around, true, BYTES(like_a_header(c) + f + "\r\n")},
    {"cut", around, false, BYTES(f.substr(0, 1 + c(f.size() - 1)))},
    {"cut, line end kept", inside, false, BYTES(f.substr(0, 1 + c(f.size() - 1)) + "\r\n")},
    {"1-8 bytes lost", inside, false, BYTES(with_loss(c, f) + "\r\n")},
    {"a byte more", inside, false, BYTES(f.insert(c(f.size()), 1, f[0]) + "\r\n")},
    {"twice without line end", around, true, BYTES(f + f + "\r\n")},
    {"zeros behind", refused, true, BYTES(f + std::string(1 + c(4), 0) + "\r\n")},
    {"no line end", refused, true, BYTES(f)},
    {"a bit flipped", inside, false, BYTES((f[c(f.size())] ^= static_cast<char>(1u << c(8)), f + "\r\n"))},
    {"length off by 1-3", inside, false, BYTES(with_length_off(c, f) + "\r\n")},
    {"length 000-FFF", inside, false, BYTES(with_length(f, c(4096)) + "\r\n")},
    {"length FF0-FFF", inside, false, BYTES(with_length(f, 0xFF0 + c(16)) + "\r\n")},
};

struct Line {
    Line(const Fault& fault, unsigned n, uint64_t seed) : sound(n, true) {
        Random c(seed);
        for (unsigned i = 0; i < n; ++i) {
            frames.push_back(sent_frame(c, i));
            const bool spoiled = c(20) == 0;
            bytes += spoiled ? fault.bytes(c, frames[i]) : frames[i] + "\r\n";
            if (spoiled) ++spoilt, sound[i] = fault.sound;
        }
    }
    std::string bytes;
    std::vector<std::string> frames;
    std::vector<bool> sound;
    unsigned spoilt = 0;
};

/// What came of a line.
struct Outcome {
    explicit Outcome(const Line& line) {
        std::vector<bool> arrived(line.sound.size());
        const auto take = [&](const unsigned char* bytes, int len) {
            const std::string frame(bytes, bytes + len - 1);
            size_t number = 0;
            for (const char digit : frame.substr(5, 8)) number = number * 16 + static_cast<unsigned char>(digit - 'g');
            const bool sent = number < arrived.size() && line.frames[number] == frame;
            sent ? void(arrived[number] = true) : void(++false_frames);
        };
        Fed_stream stream(line.bytes, Fed_stream::pushed, 256);
        Vorn_parser parser(&stream, false);
        Vorn_checksum_checker checker;
        checker.longest_array = 80;
        parser.set_checker(&checker);
        parser.keep_on_reject = true;
        Vorn_salvage salvage;
        unsigned char packet[8192];
        for (int len; !stream.dry();) {
            stream.feed();
            while (const int kind = parser.get_packet(packet, sizeof packet, len)) {
                if (kind == Vorn_parser::kind_frame &&
                    Vorn_message(packet, static_cast<uint32_t>(len)).check_checksum()) {
                    salvage.forget();
                    take(packet, len);
                    continue;
                }
                salvage.add(packet, len);
                while (const unsigned char* frame = salvage.next(len)) take(frame, len);
            }
        }
        for (size_t i = 0, run = 0; i < arrived.size(); ++i) {
            run = line.sound[i] && !arrived[i] ? run + 1 : line.sound[i] ? 0 : run;
            lost += line.sound[i] && !arrived[i];
            longest_run = std::max(longest_run, static_cast<unsigned>(run));
        }
    }
    unsigned lost = 0, longest_run = 0, false_frames = 0;
};

TEST(line_noise, is_parsed_as_by_the_slow_model_and_costs_few_sound_frames) {
    Debug_print::set_debug_file("/dev/null"); // refusals
    // The 4190th byte may end the line, and the buffer its run.
    EXPECT_EQ(difference(std::string(6, 0) + std::string(4189, 1) + std::string(12, '\n')), "");
    Random c(1);
    unsigned total_faults = 0, total_false = 0;
    for (const Fault& fault : faults) {
        const Line some(fault, nightly() ? 30000 : 1000, 1);
        for (const char portion : {0, 1}) // all at once, and little by little
            EXPECT_EQ(difference(std::string{0, portion, 0, 0, 0, 0} + some.bytes), "") << fault.name;
        for (int round = 0; round < 40; ++round) { // in any way
            const std::string how{char(c(3)),  char(c(4) ? c(20) : c(256)), char(c(8)),
                                  char(c(32)), char(c(4) ? 0 : c(256)),     0};
            const unsigned frames = 1 + c(20), seed = c(UINT_MAX);
            std::string bytes = Line(fault, frames, seed).bytes;
            if (round == 0) {
                const size_t at = c(bytes.size()), ones = 4185 + c(20u), ends = c(20u);
                bytes.insert(at, std::string(ones, 1)).append(ends, '\n');
            }
            EXPECT_EQ(difference(how + bytes), "") << fault.name << ": " << bytes;
        }
        double lost = 0;
        unsigned run = 0;
        for (uint64_t seed = 1; seed <= (nightly() ? 3 : 1); ++seed) {
            const Line line(fault, nightly() ? 400000 : 40000, seed);
            const Outcome o(line);
            lost = std::max(lost, 1.0 * o.lost / line.spoilt);
            run = std::max(run, o.longest_run);
            total_faults += line.spoilt;
            total_false += o.false_frames;
        }
        constexpr double allowed[] = {0, 0.01, 0.001, 1.01};
        EXPECT_LE(lost, allowed[fault.bound]) << fault.name;
        EXPECT_LE(run, 6u) << fault.name;
        printf("%-28s %7.4f sound frames lost per fault, at most %u in a row\n", fault.name, lost, run);
    }
    printf("false frames: %u of %u faults\n", total_false, total_faults);
    EXPECT_LE(total_false, total_faults * 15 / 10000);
}

} // namespace
