// SPDX-License-Identifier: MIT
#include "glue/diagnostics/Diagnostic_history.h"
#include "support/Manual_clock.h"
#include "support/capture.h"
#include <gtest/gtest.h>
#include <string>

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
        unsigned char src;
        unsigned short error;
        unsigned from, to;
        const char* expected;
    } table[] = {{0, 0, 0, end, "1:5:10 1:6:11 128:5:12 "}, // as without a filter
                 {128, 0, 0, end, "128:5:12 "},
                 {0, 5, 0, end, "1:5:10 128:5:12 "},
                 {1, 5, 0, end, "1:5:10 "},
                 {0, 0, 11, 12, "1:6:11 "}};
    for (const auto& row : table) {
        Sink sink;
        if (&row != table) sink.set_filter(row.src, row.error, row.from, row.to);
        sink._output(1, 7, 5, 10, 0);
        sink._output(1, 5, 6, 11, 0); // the first error word is no key
        sink._output(128, 7, 5, 12, 0);
        sink._output(128, 7, 5, end, 0); // no bound is above it
        EXPECT_EQ(sink.all, row.expected) << &row - table;
    }
}

TEST(Diagnostic_history, Is_ready_once_the_clock_has_moved_on) {
    Manual_clock clock(1000, 500);
    Sink sink;
    EXPECT_FALSE(sink.check_ready());
    clock.advance(1);
    EXPECT_TRUE(sink.check_ready());
}

TEST(Diagnostic_history, Prints_the_second_error_word_before_the_first) {
    Capture capture(stderr);
    Debug_print_diagnostic_history().output(0x80, 287, 1234, 1700000000, 4);
    EXPECT_EQ(capture.text(), "ERR,128:1234,287,1700000000.004\n");
}

} // namespace
