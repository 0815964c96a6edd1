// SPDX-License-Identifier: MIT
#include "support/Test_diner.h"
#include "support/test.h"

namespace {

TEST(Descriptor, keeps_twelve_characters_and_compares_by_name_and_id) {
    const Diner::Descriptor d("steering_left", 3);
    EXPECT_STREQ(d.name, "steering_lef");
    EXPECT_VALUES("true true", d != Diner::Descriptor("steering_lef", 4), d != Diner::Descriptor("steering", 3));
    EXPECT_EQ(Diner::DESCRIPTOR_DEFAULT, Diner::Descriptor("ANON_DNR", 0));
}

TEST(Diner, handles_events_in_order_under_its_lock_and_bare_wake_ups_only_on_request) {
    for (bool pass : {false, true}) {
        Test_diner<> d;
        std::vector<int> seen, expected(100);
        std::iota(expected.begin(), expected.end(), 5);
        d.on_event = [&](waiter_event& e) {
            if (e.module_id == 2000) seen.push_back(e.id);
            EXPECT_VALUES(texts(true, true, Diner_info::activity_event), d.is_locked(), d.on_own_thread(),
                          d.info.activity);
        };
        d.begin(false, pass);
        for (int i = 0; i < 3; ++i) d.wake();
        waiter_event like_one(module_man::EVENT_ANONYMOUS);
        like_one.data = 77; // the data word does not count
        ++d.posted;
        d.waiter.send_event(like_one);
        for (int id : expected) d.post(id);
        ASSERT_TRUE(d.idle()) << "what is not handled is counted too";
        d.terminate(true);
        EXPECT_EQ(seen, expected);
        EXPECT_EQ(d.events, pass ? 104 : 100);
        EXPECT_EQ(d.info.activity, Diner_info::activity_idle);
    }
}

TEST(Diner, prints_and_flushes_what_its_debug_level_asks_for) {
    enum Output { none, print, flush };
    const std::tuple<unsigned char, Output, Output> cases[] = {
        // level, what it prints of an event and of a timeout
        {0, none, none},     {10, print, none},   {11, none, print},   {12, none, none},
        {50, none, none},    {51, print, none},   {52, print, print},  {100, flush, print},
        {101, print, flush}, {150, print, print}, {151, flush, print}, {152, flush, flush}};
    const auto output = [](const std::string& line, auto act) {
        bool flushed = false;
        const std::string text = debug_text(act, &flushed);
        EXPECT_EQ(text, text.empty() ? "" : line);
        return flushed ? flush : text.empty() ? none : print;
    };
    for (const auto& [level, event, timeout] : cases) {
        Timeout t;
        Test_diner<> running("dbg"), parked("dbg");
        for (auto* d : {&running, &parked}) d->info.set_debug_level(level), d->begin(d == &parked);
        EXPECT_EQ(output("Evt{dbg,2000,5}\n", [&] { running.post(5), running.idle(), running.get_state(); }), event);
        const auto handle = [&] { parked.submit_timeout(t, 0), parked.handle_timeout(), parked.remove_timeout(t); };
        EXPECT_EQ(output(text_of("Tim{dbg,%p}\n", static_cast<void*>(&t)), handle), timeout) << int(level);
    }
}

/// The passes of a diner that the test drives itself.
class Passes : public testing::Test {
protected:
    /// Timeouts handled by the next pass.
    int pass() { return pass(d); }
    static int pass(Test_diner<Diner>& x) {
        x.timeouts_handled = 0;
        x.handle_timeout();
        return x.timeouts_handled;
    }
    Manual_clock clock;
    Timeout t[3];
    Test_diner<Diner> d; // after the timeouts: its end makes them free
};

TEST_F(Passes, handle_everything_due_missed_periods_included) {
    t[0].period = 100;
    d.submit_timeout(t[0], 0);
    d.submit_timeout(t[1], 200);
    // ms that go by, handled: at the last but one three periods and the one-shot
    for (const auto& [ms, handled] : {std::pair(0, 1), {350, 4}, {0, 0}, {49, 0}, {1, 1}}) {
        clock.advance(ms);
        EXPECT_EQ(pass(), handled) << ms << ": it keeps its phase";
    }
    t[0].invalidate();
    clock.advance(500);
    EXPECT_EQ(pass(), 1);
}

TEST_F(Passes, end_in_spite_of_handlers_that_are_slow_or_submit_in_the_past_and_of_clocks_set_back) {
    t[0].period = 10;
    d.submit_timeout(t[0], 0);
    d.on_timeout = [this](Timeout&) { clock.advance(25); };
    for (int handled : {1, 2, 5}) EXPECT_EQ(pass(), handled) << "what falls due meanwhile is left to the next pass";
    d.remove_timeout(t[0]);
    d.on_timeout = [this](Timeout& x) { d.submit_timeout(x, -1000); };
    d.submit_timeout(t[1], 0);
    for (int handled : {1, 1}) EXPECT_EQ(pass(), handled);
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
    EXPECT_NE(r.err.find("Timeout_diner::handle_timeout - not expired yet -10000\n"), std::string::npos) << r.err;
    EXPECT_EQ(r.out, "BUG: Timeout_diner::handle_timeout - not expired yet\r\n");
}

constexpr int32_t hour = 3600, fifty_years = 1577880000; // [s]

/// Two diners that are told of steps of the clock: one with a timeout every 100 ms, both with one in 250 ms.
class Clock_step : public Passes {
protected:
    Clock_step() {
        d.begin(true);
        other.begin(true);
        t[0].period = 100;
    }
    void submit() {
        d.submit_timeout(t[0], 100);
        d.submit_timeout(t[1], 250);
        other.submit_timeout(t[2], 250);
    }
    void step(int32_t s, int ms = 0) {
        clock.advance(int64_t{s} * 1000 + ms);
        Diner_info_list::get().clock_stepped(s, ms);
    }
    std::string handled() {
        const int mine = pass();
        return text_of("%d %d ", mine, pass(other));
    }
    Test_diner<Diner> other;
};

TEST_F(Clock_step, moves_what_is_pending_along) {
    for (const auto& [s, ms] :
         {std::pair(hour, 0), {fifty_years, 0}, {-hour, 0}, {-fifty_years, 0}, {0, 240}, {-1, -999}}) {
        SCOPED_TRACE(std::to_string(s) + " " + std::to_string(ms));
        clock.set(s > hour ? 0 : fifty_years);
        submit();
        step(s, ms);
        EXPECT_EQ(handled(), "0 0 ");
        clock.advance(350);
        EXPECT_EQ(handled(), "4 1 ");
        EXPECT_EQ(t[0].remaining_ms(), 50) << "it keeps its phase";
    }
    submit();
    clock.advance(hour * 1000); // untold
    EXPECT_EQ(handled(), "36001 1 ");
}

TEST_F(Clock_step, in_a_handler_ends_the_pass_and_the_next_one_goes_on) {
    for (const int32_t s : {hour, -hour}) {
        submit();
        d.on_timeout = [&](Timeout& x) {
            if (&x == &t[0]) step(s);
        };
        clock.advance(300); // all are due, the periodic one three times
        EXPECT_EQ(handled(), "1 1 ");
        EXPECT_EQ(t[0].remaining_ms(), -100) << "two periods are left";
        d.on_timeout = nullptr;
        EXPECT_EQ(handled(), "3 0 ");
    }
}

TEST_F(Clock_step, stops_at_the_last_instant_and_at_the_first) {
    submit();
    for (const int32_t s : {INT32_MAX, INT32_MIN, INT32_MIN, hour}) Diner_info_list::get().clock_stepped(s, 0);
    for (int i : {0, 1}) EXPECT_VALUES("true 0", t[i].expiry.time == INT32_MIN + hour, d.remove_timeout(t[i]));
}

/// While the list waits for the lock of a diner, that diner's handler tells of a step.
TEST(Clock_steps, are_told_by_handlers_under_their_lock_and_wake_every_diner) {
    Test_diner<> a("a"), b("b");
    b.begin(false, true);
    a.begin();
    a.on_event = [](waiter_event&) {
        EXPECT_TRUE(wait_until([] { return lseek(STDERR_FILENO, 0, SEEK_END) > 0; }));
        Diner_info_list::get().clock_stepped(hour, 0);
    };
    Capture err(stderr);
    a.post(1);
    ASSERT_TRUE(wait_until([&a] { return a.info.activity == Diner_info::activity_event; }));
    Diner_info_list::get().test_lock();
    EXPECT_TRUE(wait_until([&b] { return b.events == 1; }));
    EXPECT_EQ(err.text().find("Deadlock"), std::string::npos);
}

TEST(Diner, lock_waits_as_long_as_it_can_when_that_is_not_long_enough) {
    Test_diner<> d;
    for (int ticks : {INT_MAX / 10, INT_MAX / 10 + 1, INT_MAX}) {
        d.lock(-1);
        std::atomic<int> result{-1};
        std::thread other([&] {
            result = d.lock(ticks);
            if (result == 1) d.unlock();
        });
        EXPECT_FALSE(wait_until([&] { return result != -1; }, std::chrono::milliseconds(30))) << ticks;
        d.unlock();
        other.join();
        EXPECT_EQ(result, 1);
    }
}

TEST(Diner, sleeps_until_its_earliest_timeout_behind_events_and_drops_the_rest_when_it_stops) {
    Timeout t[2];
    Test_diner<> d;
    std::string order;
    d.on_event = [&](waiter_event&) { order += 'e'; };
    d.on_timeout = [&](Timeout& x) { order += &x == &t[1] && x.remaining_ms() <= 0 ? 't' : '?'; };
    d.begin(true);
    d.submit_timeout(t[0], 100000);
    d.submit_timeout(t[1], -1);
    for (int i = 0; i < 3; ++i) d.post(i);
    d.run();
    ASSERT_TRUE(wait_until([&] { return d.info.timeout_count == 1; }));
    d.submit_timeout(t[1], 30); // submitted by another thread: the diner must look again
    ASSERT_TRUE(wait_until([&] { return d.info.timeout_count == 2; }));
    EXPECT_VALUES("true false", t[0].submitted(), t[1].submitted());
    EXPECT_VALUES("0 true", d.stop(), d.in_state(Diner::state_stop));
    EXPECT_EQ(order, "eeett");
    EXPECT_VALUES("false true", t[0].submitted(), !t[0].diner);
}

TEST(Diner, allocates_nothing_for_events_and_timeouts) {
    Timeout t;
    Test_diner<> d;
    d.begin();
    long before = 0;
    for (int round = 0; round < 2; ++round) {
        before = allocations();
        for (int i = 0; i < 50; ++i) d.post(i);
        ++d.posted; // the wake-up for the timeout
        d.submit_timeout(t, 0);
        EXPECT_TRUE(wait_until([&] { return d.info.timeout_count > static_cast<unsigned>(round); }));
        EXPECT_TRUE(d.idle());
    }
    EXPECT_EQ(allocations(), before);
}

} // namespace
