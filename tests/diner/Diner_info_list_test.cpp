// SPDX-License-Identifier: MIT
#include "support/Test_diner.h"
#include "support/capture.h"
#include "support/child.h"
#include <chrono>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <thread>

namespace {

const std::string heading = "\nId      Name State Run   EventCnt ToutCnt Checkpoint\n";

/// A diner whose row is set by the test, so that every value can be shown.
struct Row_diner : Test_diner<> {
    using Test_diner<>::Test_diner;
    void show(int s, bool pending) {
        descriptor = own;
        state = s;
        _start_pending = pending;
    }
    ~Row_diner() override { state = Diner::state_uninit; }
};

template <class Print>
std::string printed(FILE* stream, Print print) {
    Capture capture(stream);
    print();
    return capture.text();
}

/// Of the file that a Capture puts in its place.
long size_of_stderr() {
    struct stat s;
    return fstat(STDERR_FILENO, &s) == 0 ? s.st_size : 0;
}

TEST(Diner_info, prints_its_row) {
    const struct {
        const char* name;
        int state;
        bool pending;
        unsigned char activity;
        uint32_t events, timeouts;
        const char* file;
        int line;
        bool full_path;
        const char* row;
    } cases[] = {
        {"twelve_chars", 1, true, 1, 12, 3, "glue/diner/Diner", 80, false,
         "twelve_chars Stoping-1 Evt       12       3 Diner:80\n"},
        {"a", 2, false, 2, 123456789, 12345678, "glue/diner/Diner", 265, true,
         "        a  Stop-0 Tmt 123456789 12345678 glue/diner/Diner:265\n"},
        {"a", 3, false, 0, 4294967295u, 0, "plain", 1, false, "        a Uninit-0 Idl       -1       0 plain:1\n"},
        {"a", 4, false, 0, 0, 0, "x/", 1, false, "        a  Term-0 Idl        0       0 :1\n"},
        {"a", 6, false, 0, 0, 0, "x/y", 1, true, "        a Unknown-0 Idl        0       0 x/y:1\n"},
        {"a", -1, false, 0, 0, 0, "y", 1, false, "        a Unknown-0 Idl        0       0 y:1\n"},
    };
    for (const auto& c : cases) {
        Row_diner d(c.name);
        d.show(c.state, c.pending);
        d.info.activity = c.activity;
        d.info.event_count = c.events;
        d.info.timeout_count = c.timeouts;
        d.info.checkpoint(c.file, c.line);
        EXPECT_EQ(printed(stderr, [&] { d.info.print(true, c.full_path); }), c.row);
        EXPECT_EQ(printed(stdout, [&] { d.info.print(false, c.full_path); }), c.row);
    }
}

TEST(Diner_info, lets_a_derived_record_append_to_its_row) {
    struct Appending : Diner_info {
        using Diner_info::Diner_info;
        void append_print_info(const char* text, int room) const override {
            snprintf(const_cast<char*>(text), static_cast<size_t>(room), "%s", std::string(300, '+').c_str());
        }
    };
    Row_diner d("a");
    const Appending info(d);
    const std::string row = "ANON_DNR Uninit-0 Idl        0       0 :0\n";
    EXPECT_EQ(printed(stdout, [&] { info.print(false, false); }), " " + row + std::string(254 - row.size(), '+'));
}

TEST(Diner_info_list, prints_a_table_of_the_diners_in_the_order_of_their_start) {
    Diner_info_list& list = Diner_info_list::get();
    EXPECT_EQ(printed(stdout, [&] { list.print(false, false); }), heading);
    Test_diner<> a("first"), b("second");
    for (auto* d : {&a, &b}) {
        d->begin();
        ASSERT_TRUE(wait_until([&] { return d->info.checkpoint_line == 80; }));
    }
    const std::string rows = " 0     first   Run-0 Idl        0       0 Diner:80\n"
                             " 1    second   Run-0 Idl        0       0 Diner:80\n";
    EXPECT_EQ(printed(stdout, [&] { list.print(false, false); }), heading + rows);
    EXPECT_EQ(printed(stderr, [&] { list.print(true, false); }), heading + rows);
    a.terminate(true);
    EXPECT_NE(printed(stdout, [&] { list.print(false, false); }).find(" 0    second   Run"), std::string::npos);
}

TEST(Diner_info_list, reaches_each_diner_by_its_position_and_by_its_lock) {
    Diner_info_list& list = Diner_info_list::get();
    Test_diner<> a("a"), b("longer_name_");
    a.begin(true);
    b.begin(true);
    for (int index : {-1, 2, 1000000}) list.set_debug_level(index, 99);
    list.set_debug_level(1, 7);
    EXPECT_TRUE(a.info.debug_level == 0 && b.info.debug_level == 7);
    EXPECT_EQ(printed(stderr, [&] { list.test_lock(); }), "Testing         a.. Ok\nTesting longer_name_.. Ok\n");

    b.lock(-1); // stuck: the line stays open until it is let go
    Capture err(stderr);
    std::thread tester([&] { list.test_lock(); });
    EXPECT_TRUE(wait_until([] { return size_of_stderr() >= 43; }));
    EXPECT_EQ(size_of_stderr(), 43);
    b.unlock();
    tester.join();
}

TEST(Diner_info_list, names_who_is_alive) {
    Test_diner<> a("working"), b("parked"), c("gone");
    a.begin();
    b.begin(true);
    c.begin();
    c.terminate(true);
    EXPECT_EQ(printed(stderr, [] { EXPECT_EQ(Diner_info_list::get().print_alive(), 2); }),
              "  working (Run)\n  parked (Stop)\n");
}

/// A process returns from main with a diner that runs, one that is parked and one that is stuck in its handler.
TEST(Diner_info_list, ends_every_diner_at_the_end_of_the_process_and_tells_who_is_late) {
    const auto begin = std::chrono::steady_clock::now();
    const Child_result r = run_child([] {
        static Capture* messages = new Capture(stderr);
        // Static, so that what outlives main is not taken for leaked.
        static auto* const running = new Test_diner<>("running");
        static auto* const parked = new Test_diner<>("parked");
        static auto* const stuck =
            new Test_diner<Diner>("stuck"); // without a lock: with one, terminate() would give up
        running->begin();
        parked->begin(true);
        stuck->on_event = [](waiter_event&) {
            // Until the second message. A process that did not wait would not live to see it.
            EXPECT_TRUE(wait_until([&] { return size_of_stderr() >= 2 * 30; }));
            printf("%s", messages->text().c_str());
            fflush(stdout);
        };
        stuck->begin();
        stuck->post(1);
        wait_until([] { return stuck->info.activity == Diner_info::activity_event; });
    });
    const auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_EQ(r.status, 0) << r.err;
    const std::string line = "1 out of 1 diners still alive\n";
    EXPECT_EQ(r.out.substr(0, 2 * line.size()), line + line);
    EXPECT_GE(took, std::chrono::milliseconds(1500)) << "not before the 16th pass";
}

} // namespace
