// SPDX-License-Identifier: MIT
#include "support/Manual_clock.h"
#include "support/Test_diner.h"
#include "support/allocations.h"
#include "support/child.h"
#include "util/Debug_print.h"
#include <csignal>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace {

TEST(Descriptor, keeps_twelve_characters_and_compares_by_name_and_id) {
    const Diner::Descriptor d("steering_left", 3);
    EXPECT_STREQ(d.name, "steering_lef");
    EXPECT_EQ(d, Diner::Descriptor("steering_lef", 3));
    EXPECT_NE(d, Diner::Descriptor("steering_lef", 4));
    EXPECT_NE(d, Diner::Descriptor("steering", 3));
    EXPECT_EQ(Diner::DESCRIPTOR_DEFAULT, Diner::Descriptor("ANON_DNR", 0));
}

TEST(Diner, handles_events_one_at_a_time_in_order_under_its_lock) {
    Test_diner<> d;
    std::vector<int> seen;
    std::atomic<int> bad{0};
    d.on_event = [&](waiter_event& e) {
        seen.push_back(e.id);
        if (!d.is_locked() || !d.on_own_thread() || d.info.activity != Diner_info::activity_event) ++bad;
    };
    d.begin();
    for (int i = 0; i < 100; ++i) d.post(i);
    ASSERT_TRUE(d.idle());
    d.terminate(true);
    ASSERT_EQ(seen.size(), 100u);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(seen[static_cast<size_t>(i)], i);
    EXPECT_EQ(bad, 0);
    EXPECT_EQ(d.info.activity, Diner_info::activity_idle);
}

TEST(Diner, counts_bare_wake_ups_and_handles_them_only_on_request) {
    for (bool pass : {false, true}) {
        Test_diner<> d;
        d.begin(false, pass);
        for (int i = 0; i < 3; ++i) d.wake();
        waiter_event like_one(module_man::EVENT_ANONYMOUS);
        like_one.data = 77; // the data word does not count
        ++d.posted;
        d.waiter.send_event(like_one, false, false);
        d.post(1); // same module or id alone do not make one
        ASSERT_TRUE(d.idle());
        EXPECT_EQ(d.events, pass ? 5 : 1);
    }
}

/// What `act` made a diner of this debug level print, and whether it was flushed.
template <class Act>
std::string printed(unsigned char level, Act act) {
    FILE* out = std::tmpfile(); // fully buffered: what is on the disk was flushed
    Debug_print::debug_file = out;
    struct stat before;
    char text[100] = "";
    {
        Test_diner<> d("dbg");
        d.info.set_debug_level(level);
        act(d);
        fstat(fileno(out), &before);
    }
    Debug_print::debug_file = stderr;
    rewind(out);
    const size_t n = fread(text, 1, sizeof text - 1, out);
    fclose(out);
    return std::string(text, n) + (before.st_size > 0 ? "flushed" : "");
}

TEST(Diner, prints_and_flushes_what_its_debug_level_asks_for) {
    enum Output { none, print, flush };
    const struct {
        unsigned char level;
        Output event, timeout;
    } cases[] = {{0, none, none},     {10, print, none},   {11, none, print},   {12, none, none},
                 {50, none, none},    {51, print, none},   {52, print, print},  {100, flush, print},
                 {101, print, flush}, {150, print, print}, {151, flush, print}, {152, flush, flush}};
    Timeout t;
    char timeout_line[100];
    snprintf(timeout_line, sizeof timeout_line, "Tim{dbg,%p}\n", static_cast<void*>(&t));
    const auto expected = [](Output o, std::string line) {
        return o == none ? "" : o == print ? line : line + "flushed";
    };
    for (const auto& c : cases) {
        EXPECT_EQ(printed(c.level,
                          [](Test_diner<>& d) {
                              d.begin();
                              d.post(5);
                              EXPECT_TRUE(d.idle());
                          }),
                  expected(c.event, "Evt{dbg,2000,5}\n"))
            << int(c.level);
        EXPECT_EQ(printed(c.level,
                          [&t](Test_diner<>& d) {
                              d.begin(true);
                              d.submit_timeout(t, 0);
                              d.handle_timeout();
                              d.remove_timeout(t);
                          }),
                  expected(c.timeout, timeout_line))
            << int(c.level);
    }
}

/// The passes of a diner that the test drives itself.
class Passes : public testing::Test {
protected:
    Manual_clock clock;
    Test_diner<Diner> d;
    Timeout t[3];
    ~Passes() override {
        for (Timeout& x : t) d.remove_timeout(x);
    }
    /// Timeouts handled by the next pass.
    int pass() {
        const int before = d.timeouts_handled;
        d.handle_timeout();
        return d.timeouts_handled - before;
    }
};

TEST_F(Passes, handle_everything_due_missed_periods_included) {
    t[0].period = 100;
    d.submit_timeout(t[0], 0);
    d.submit_timeout(t[1], 200);
    EXPECT_EQ(pass(), 1);
    clock.advance(350);
    EXPECT_EQ(pass(), 4) << "three periods and the one-shot";
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(t[0].remaining_ms(), 50) << "it keeps its phase";
    t[0].invalidate();
    clock.advance(500);
    EXPECT_EQ(pass(), 1);
}

TEST_F(Passes, leave_to_the_next_one_what_falls_due_meanwhile) {
    t[0].period = 10;
    d.submit_timeout(t[0], 0);
    d.on_timeout = [this](Timeout&) { clock.advance(25); };
    EXPECT_EQ(pass(), 1);
    EXPECT_EQ(pass(), 2);
    EXPECT_EQ(pass(), 5) << "slower than its period: each pass ends all the same";
}

TEST_F(Passes, end_at_what_a_handler_submits_even_in_the_past) {
    const int due_in[] = {0, -1000};
    for (int ms : due_in) {
        d.on_timeout = [this, ms](Timeout& x) {
            if (&x == &t[0]) d.submit_timeout(x, ms);
        };
        d.submit_timeout(t[0], 0);
        EXPECT_EQ(pass(), 1) << ms;
        EXPECT_EQ(pass(), 1) << ms;
    }
}

TEST_F(Passes, go_on_when_the_clock_is_set_back_meanwhile) {
    d.on_timeout = [this](Timeout&) { clock.advance(-500); };
    for (Timeout& x : t) d.submit_timeout(x, -100);
    EXPECT_EQ(pass(), 3);
}

TEST_F(Passes, end_the_process_for_a_timeout_that_was_re_timed_behind_their_back) {
    const Child_result r = run_child([this] {
        d.submit_timeout(t[0], 0);
        t[0].expiry += 10000;
        d.handle_timeout();
    });
    EXPECT_EQ(r.signal, SIGABRT);
    EXPECT_NE(r.err.find("Timeout_diner::handle_timeout - not expired yet -10000\n"), std::string::npos) << r.err;
    EXPECT_EQ(r.out, "BUG: Timeout_diner::handle_timeout - not expired yet\r\n");
}

TEST(Diner, sleeps_until_its_earliest_timeout_and_counts_passes) {
    Test_diner<> d;
    Timeout t[2];
    d.begin();
    d.submit_timeout(t[0], 100000);
    d.submit_timeout(t[1], 30); // submitted by another thread: the diner must look again
    ASSERT_TRUE(wait_until([&] { return d.info.timeout_count == 1; }));
    EXPECT_EQ(d.timeouts_handled, 1);
    EXPECT_LE(t[1].remaining_ms(), 0);
    EXPECT_TRUE(t[0].submitted());
    EXPECT_FALSE(t[1].submitted());
}

TEST(Diner, handles_events_before_timeouts_that_are_due) {
    Test_diner<> d;
    Timeout t;
    std::string order;
    d.on_event = [&](waiter_event&) { order += 'e'; };
    d.on_timeout = [&](Timeout&) { order += 't'; };
    d.begin(true);
    d.submit_timeout(t, -1);
    d.waiter.set_enabled(true);
    for (int i = 0; i < 3; ++i) d.post(i);
    d.run();
    ASSERT_TRUE(wait_until([&] { return d.info.timeout_count == 1; }));
    d.terminate(true);
    EXPECT_EQ(order, "eeet");
}

TEST(Diner, drops_its_timeouts_when_it_stops) {
    Test_diner<> d;
    Timeout t;
    d.begin();
    d.submit_timeout(t, 100000);
    EXPECT_EQ(d.stop(), 0);
    ASSERT_TRUE(d.in_state(Diner::state_stop));
    EXPECT_FALSE(t.submitted());
    EXPECT_EQ(t.diner.load(), nullptr);
}

TEST(Diner, allocates_nothing_for_events_and_timeouts) {
    Test_diner<> d;
    Timeout t;
    d.begin();
    const auto round = [&] {
        for (int i = 0; i < 50; ++i) d.post(i);
        EXPECT_TRUE(d.idle());
        const uint32_t before = d.info.timeout_count;
        d.submit_timeout(t, 0);
        ++d.posted; // its wake-up
        EXPECT_TRUE(wait_until([&] { return d.info.timeout_count != before; }));
        d.remove_timeout(t);
    };
    round();
    const long before = allocations();
    round();
    EXPECT_EQ(allocations(), before);
}

} // namespace
