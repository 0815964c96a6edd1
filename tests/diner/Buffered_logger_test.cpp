// SPDX-License-Identifier: MIT
#include "glue/diner/Buffered_logger.h"
#include "glue/diner/Diner_info_list.h"
#include "support/allocations.h"
#include "support/wait_until.h"
#include "util/Debug_print.h"
#include <atomic>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <poll.h>
#include <string>
#include <thread>
#include <tuple>
#include <unistd.h>
#include <vector>

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
        const ssize_t n = poll(&p, 1, ms) > 0 ? read(ends[0], bytes, sizeof bytes) : 0;
        return {bytes, static_cast<size_t>(std::max<ssize_t>(n, 0))};
    }
    std::string all() {
        std::string text;
        for (std::string s; !(s = next()).empty();) text += s;
        return text;
    }
    /// Until nobody takes its bytes, a write blocks.
    void block_output() {
        fcntl(ends[1], F_SETPIPE_SZ, 4096);
        fcntl(ends[1], F_SETFL, O_DIRECT | O_NONBLOCK);
        while (write(ends[1], "#", 1) == 1) ++blocked_by;
        fcntl(ends[1], F_SETFL, O_DIRECT);
    }
    static bool handled(const Buffered_logger& logger, uint32_t events) {
        return wait_until([&] { return logger.info.event_count == events; });
    }

    int ends[2];
    size_t blocked_by = 0;
};

void drain(Buffered_logger& logger) {
    waiter_event any;
    logger.handle_event(any);
}

TEST_F(Logger, Prints_a_backlog_in_pieces_of_80) {
    Buffered_logger logger;
    std::string text;
    for (int i = 0; i < 200; ++i) text += static_cast<char>('0' + i % 75);
    // Twice around the ring, so that pieces also lie across its end.
    for (int round = 0; round < 41; ++round) {
        logger.append(text.substr(0, 130).c_str());
        logger.append(text.substr(130).c_str());
        drain(logger);
        for (size_t piece : {0, 80, 160}) ASSERT_EQ(next(), text.substr(piece, 80));
        ASSERT_EQ(next(), "");
    }
    logger.append("");
    drain(logger);
    EXPECT_EQ(next(), "");
}

TEST_F(Logger, Drops_what_does_not_fit_and_says_so_by_a_flag) {
    const std::tuple<size_t, size_t, size_t, bool> table[] = {
        {4092, 4, 4, false}, {4092, 10, 4, true}, {4096, 1, 0, true}, {0, 5000, 4096, true}};
    for (const auto& [first, second, kept, dropped] : table) {
        Buffered_logger logger; // without its thread the notice comes at once
        logger.append(std::string(first, 'a').c_str());
        EXPECT_EQ(next(), "");
        logger.append(std::string(second, 'b').c_str());
        EXPECT_EQ(next(), dropped ? notice : "") << first << " " << second;
        drain(logger);
        EXPECT_EQ(all(), std::string(first, 'a') + std::string(kept, 'b')) << first << " " << second;
    }
}

TEST_F(Logger, Is_a_diner_that_log_writes_to_while_it_lives) {
    Buffered_logger::log("to nobody");
    Buffered_logger::enable_dbi(1);
    Buffered_logger::enable_dbi2(1);
    {
        Buffered_logger logger;
        logger.init(Diner_info_list::get());
        EXPECT_EQ(logger.get_descriptor(), Diner::Descriptor("LOG0", 0));
        Buffered_logger::log("");
        EXPECT_TRUE(handled(logger, 1)) << "an empty text wakes it too";
        Buffered_logger::log("hello\n");
        EXPECT_EQ(next(20000), "hello\n");
        EXPECT_TRUE(handled(logger, 2));
        Buffered_logger other; // never initialised, so not the one
    }
    Buffered_logger::log("to nobody");
    EXPECT_EQ(next(), "");
}

TEST_F(Logger, Holds_no_appender_up_while_the_output_blocks) {
    Buffered_logger logger;
    logger.init(Diner_info_list::get());
    ASSERT_TRUE(wait_until([&] { return logger.get_state() == Diner::state_run; }));
    block_output();
    logger.append("!");
    // Its thread has taken the text, and hangs: one event is begun and none handled.
    ASSERT_TRUE(wait_until([&] { return logger.waiting() == 0; }));

    const std::string line = "a line of forty characters with its end\n";
    constexpr int threads = 4, lines = 1000;
    std::atomic<int> ended{0};
    std::vector<std::thread> appenders;
    for (int i = 0; i < threads; ++i)
        appenders.emplace_back([&] {
            for (int n = 0; n < lines; ++n) logger.append(line.c_str());
            ++ended;
        });
    EXPECT_TRUE(wait_until([&] { return ended == threads; }));
    EXPECT_EQ(logger.waiting(), Buffered_logger::capacity);

    const size_t expected = blocked_by + 1 + Buffered_logger::most_notices * notice.size() + Buffered_logger::capacity;
    std::string text, lines_kept, notices;
    for (std::string s; text.size() < expected && !(s = next(20000)).empty();) text += s;
    for (auto& t : appenders) t.join();
    while (lines_kept.size() < Buffered_logger::capacity) lines_kept += line;
    lines_kept.resize(Buffered_logger::capacity);
    for (uint32_t i = 0; i < Buffered_logger::most_notices; ++i) notices += notice;
    EXPECT_EQ(text, std::string(blocked_by, '#') + "!" + notices + lines_kept);
    EXPECT_TRUE(handled(logger, 1 + threads * lines)) << "one event for each append";
    EXPECT_EQ(next(), "");
}

TEST_F(Logger, Keeps_lines_of_many_threads_whole_and_allocates_nothing) {
    FILE* const pipe = Debug_print::debug_file;
    FILE* const file = Debug_print::debug_file = std::tmpfile(); // takes any amount
    auto logger = std::make_unique<Buffered_logger>();
    logger->init(Diner_info_list::get());
    constexpr int threads = 4, lines = 10, rounds = 20; // a round fits into the ring
    std::atomic<int> round{0}, ended{0};
    std::vector<std::thread> appenders;
    for (int t = 0; t < threads; ++t)
        appenders.emplace_back([&, t] {
            for (int r = 1; r <= rounds; ++r) {
                while (round < r) std::this_thread::yield();
                char line[41];
                for (int i = 0; i < lines; ++i) {
                    snprintf(line, sizeof line, "thread %d round %3d line %3d ...........\n", t, r, i);
                    logger->append(line);
                }
                ++ended;
            }
        });
    long before = 0;
    for (int r = 1; r <= rounds; ++r) {
        round = r;
        ASSERT_TRUE(wait_until([&] { return ended == threads * r; }));
        ASSERT_TRUE(handled(*logger, static_cast<uint32_t>(threads * lines * r)));
        if (r == 1) before = allocations();
        if (r == rounds) {
            EXPECT_EQ(allocations(), before);
        }
    }
    for (auto& t : appenders) t.join();
    logger.reset();
    Debug_print::debug_file = pipe;
    std::rewind(file);
    std::map<int, int> next_of; // each thread's lines in their order
    int found = 0, t, r, i, length;
    while (fscanf(file, "thread %d round %d line %d ...........%n\n", &t, &r, &i, &length) == 3) {
        ASSERT_EQ((r - 1) * lines + i, next_of[t]++);
        ASSERT_EQ(length, 39);
        ++found;
    }
    EXPECT_EQ(found, threads * lines * rounds);
    EXPECT_EQ(ftell(file), found * 40L);
    fclose(file);
}

} // namespace
