// SPDX-License-Identifier: MIT
#include "glue/diagnostics/Diagnostic_history.h"
#include "glue/diagnostics/Diagnostics_messages.h"
#include "support/Manual_clock.h"
#include "support/capture.h"
#include "support/frame.h"
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

struct Sink : Diagnostic_history {
    void output(unsigned char src, unsigned short, unsigned short b, unsigned int time, unsigned short) override {
        all += std::to_string(src) + ":" + std::to_string(b) + ":" + std::to_string(time) + " ";
    }
    std::string all;
};

TEST(Diagnostic_history, Hands_on_what_passes_its_filter) {
    constexpr unsigned end = 0xFFFFFFFF;
    const struct {
        bool set;
        unsigned char src;
        unsigned short error;
        unsigned from, to;
        const char* expected;
    } table[] = {{false, 0, 0, 0, 0, "1:5:10 1:6:11 128:5:12 128:287:4294967294 "},
                 {true, 0, 0, 0, end, "1:5:10 1:6:11 128:5:12 128:287:4294967294 "},
                 {true, 128, 0, 0, end, "128:5:12 128:287:4294967294 "},
                 {true, 0, 5, 0, end, "1:5:10 128:5:12 "},
                 {true, 128, 5, 0, end, "128:5:12 "},
                 {true, 0, 0, 11, 12, "1:6:11 "},
                 {true, 0, 0, 11, 11, ""},
                 {true, 0, 0, 12, end, "128:5:12 128:287:4294967294 "},
                 {true, 1, 287, 0, end, ""}};
    for (const auto& row : table) {
        Sink sink;
        if (row.set) sink.set_filter(row.src, row.error, row.from, row.to);
        sink._output(1, 7, 5, 10, 0);
        sink._output(1, 5, 6, 11, 0); // the first error word is no key
        sink._output(128, 7, 5, 12, 0);
        sink._output(128, 7, 287, end - 1, 0);
        sink._output(128, 7, 287, end, 0); // no bound is above it
        EXPECT_EQ(sink.all, row.expected) << &row - table;
    }
}

TEST(Diagnostic_history, Is_ready_once_the_clock_has_moved_on) {
    Manual_clock clock(1000, 500);
    Sink sink;
    EXPECT_FALSE(sink.check_ready());
    clock.advance(1);
    EXPECT_TRUE(sink.check_ready());
    clock.set(999);
    EXPECT_FALSE(sink.check_ready());
    EXPECT_FALSE(sink.is_done());
}

TEST(Diagnostic_history, Prints_the_second_error_word_before_the_first) {
    Capture capture(stderr);
    Debug_print_diagnostic_history printer;
    printer.output(0x80, 287, 1234, 1700000000, 500);
    printer.output(255, 65535, 0, 1, 4);
    EXPECT_EQ(capture.text(), "ERR,128:1234,287,1700000000.500\nERR,255:0,65535,1.004\n");
}

TEST(Diagnostics_messages, A_record_reads_as_it_was_written) {
    const struct {
        unsigned src, a, b, time, ms, read_ms;
    } table[] = {{0x80, 0x011F, 0x04D2, 1700000000, 500, 500},
                 {0, 0, 0, 0, 0, 0},
                 {255, 65535, 65535, 0xFFFFFFFF, 999, 996},
                 {1, 0x0102, 0x0304, 0x05060708, 7, 4}};
    for (const auto& row : table) {
        const std::string wanted = Frame("SP").u1(row.src).u2(row.a).u2(row.b).u4(row.time).u1(row.ms / 4).str();
        unsigned char bytes[Diagnostics_messages::Msg_SP::size_total];
        Diagnostics_messages::build_SP(bytes, static_cast<unsigned char>(row.src), static_cast<unsigned short>(row.a),
                                       static_cast<unsigned short>(row.b), row.time,
                                       static_cast<unsigned short>(row.ms));
        EXPECT_EQ(std::string(bytes, bytes + sizeof bytes), wanted) << row.src;
        const Diagnostics_messages::Msg_SP record(Vorn_message(bytes, sizeof bytes));
        EXPECT_EQ(record.src(), row.src);
        EXPECT_EQ(record.a(), row.a);
        EXPECT_EQ(record.b(), row.b);
        EXPECT_EQ(record.time(), row.time);
        EXPECT_EQ(record.ms(), row.read_ms);
    }
}

} // namespace
