// SPDX-License-Identifier: MIT
#include "glue/diner/Buffered_logger.h"
#include "glue/diner/Diner_info_list.h"
#include "support/Pty.h"
#include "support/stress.h"
#include "support/test.h"
#include <poll.h>
#include <sched.h>

namespace {

const std::string notice = "**1 CHARS DROPPED**";

/// The debug output is a pipe that keeps the writes apart.
class Logger : public testing::Test {
protected:
    Logger() {
        EXPECT_EQ(pipe2(ends, O_DIRECT), 0);
        EXPECT_GT(fcntl(ends[1], F_SETPIPE_SZ, 1 << 20), 0); // each write takes a page
        Debug_print::debug_file = fdopen(ends[1], "w");
        setvbuf(Debug_print::debug_file, nullptr, _IONBF, 0);
    }
    ~Logger() override {
        fclose(Debug_print::debug_file);
        Debug_print::debug_file = stderr;
        close(ends[0]);
    }
    /// The next write; empty when there is none within the time.
    std::string next(int ms = 0) {
        char bytes[8192];
        pollfd p = {ends[0], POLLIN, 0};
        return {bytes, poll(&p, 1, ms) > 0 ? size_t(read(ends[0], bytes, sizeof bytes)) : 0};
    }
    /// What is written, until so much has come.
    std::string all(size_t n) {
        std::string text;
        for (std::string s; text.size() < n && !(s = next(20000)).empty();) text += s;
        return text;
    }

    int ends[2];
};

TEST_F(Logger, Prints_a_backlog_in_pieces_of_80_and_drops_what_does_not_fit_with_a_flag) {
    Buffered_logger logger; // without its thread
    Buffered_logger::log("to one that is initialised, and to nobody else");
    waiter_event any;
    std::string text;
    for (int i = 0; i < 200; ++i) text += static_cast<char>('0' + i % 75);
    for (int round = 0; round < 41; ++round) { // twice around the ring, so that pieces also lie across its end
        for (const std::string& part : {text.substr(0, 130), text.substr(130)}) logger.append(part.c_str());
        logger.handle_event(any);
        for (size_t piece : {0, 80, 160, 200}) ASSERT_EQ(next(), text.substr(piece, 80));
    }
    for (const auto& [first, second, kept] :
         {std::tuple<size_t, size_t, size_t>(4092, 4, 4), {4092, 10, 4}, {0, 5000, 4096}}) {
        logger.append(std::string(first, 'a').c_str());
        EXPECT_EQ(next(), "");
        logger.append(std::string(second, 'b').c_str());
        EXPECT_EQ(next(), kept < second ? notice : "") << first << " " << second;
        logger.handle_event(any);
        EXPECT_EQ(all(4096), std::string(first, 'a') + std::string(kept, 'b')) << first << " " << second;
    }
}

/// Its thread hangs in the output with the last text that it has taken; then threads append too much.
TEST_F(Logger, Holds_no_appender_up_while_the_output_blocks_and_tells_of_each_that_was_cut) {
    const std::string line = "a line of forty characters with its end\n";
    constexpr int fit = Buffered_logger::capacity / 40;
    for (const auto& [cut, more, killed] : {std::tuple(256, "", true), {3898, " x 3642", false}}) {
        std::string expected, kept;
        fcntl(ends[1], F_SETPIPE_SZ, 4096);
        fcntl(ends[1], F_SETFL, O_DIRECT | O_NONBLOCK);
        while (write(ends[1], "#", 1) == 1) expected += '#';
        fcntl(ends[1], F_SETFL, O_DIRECT); // until these are taken a write blocks
        expected += '!';
        Buffered_logger logger;
        logger.init(Diner_info_list::get());
        EXPECT_EQ(logger.get_descriptor(), Diner::Descriptor("LOG0", 0));
        Buffered_logger::log("!");
        ASSERT_TRUE(wait_until([&] { return logger.waiting() == 0; })) << "one event is begun and none handled";
        Buffered_logger::log(""); // wakes it, too
        Threads appenders;
        std::atomic<int> lines{fit + cut};
        for (int i = 0; i < 4; ++i)
            appenders.emplace_back([&] {
                while (--lines >= 0) logger.append(line.c_str());
            });
        appenders.join();
        EXPECT_EQ(logger.waiting(), Buffered_logger::capacity);
        for (int i = 0; i < 256; ++i) expected += notice;
        if (*more) expected += notice + more;
        while (kept.size() < Buffered_logger::capacity) kept += line;
        kept.resize(Buffered_logger::capacity);
        if (killed) logger.send_kill(); // it comes before all of these wake-ups
        EXPECT_EQ(all(expected.size()), expected);
        EXPECT_TRUE(!killed || wait_until([&] { return logger.start() == 0; })) << "it has parked";
        EXPECT_EQ(all(kept.size()), kept);
        // One event for each append; the kill is none.
        EXPECT_TRUE(wait_until([&, n = 2u + fit + cut] { return logger.info.event_count == n; }));
        EXPECT_EQ(next(), "");
    }
    Buffered_logger::log("to one that is gone");
}

TEST_F(Logger, Leaves_the_core_to_its_callers) {
    Buffered_logger logger;
    Diner::Options ordinary;
    ordinary.pass_anonymous = true;
    logger.Diner::init(Diner_info_list::get(), Diner::Descriptor("LOG7", 7), ordinary);
    logger.start();
    logger.append("b");
    EXPECT_EQ(all(1), "b");
    std::string policies;
    for (int thread : numbers_in("/proc/self/task"))
        if (read_file(text_of("/proc/self/task/%d/comm", thread)) == "kav.LOG7\n")
            policies += texts(sched_getscheduler(thread));
    EXPECT_EQ(policies, texts(SCHED_BATCH));
}

} // namespace
