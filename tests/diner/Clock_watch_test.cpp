// SPDX-License-Identifier: MIT
// With a clock of the test's own: what a real kernel does is in kernel/clock_test.cpp.
#include "glue/diner/Clock_watch.h"
#include "support/Test_diner.h"
#include "support/test.h"

namespace {

constexpr int64_t hour = 3600000, fifty_years = 1577880000000; // [ms]

/// A parked diner whose passes the test runs: one timeout every 100 ms, one in 250 ms.
class Clock_watch_test : public testing::Test {
protected:
    Clock_watch_test() {
        d.begin(true);
        periodic.period = 100;
        d.submit_timeout(periodic, 100);
        d.submit_timeout(single, 250);
    }
    int pass() {
        const int before = d.timeouts_handled;
        d.Diner::handle_timeout();
        return d.timeouts_handled - before;
    }
    Manual_clock clock{100000000}; // fifty years ahead there is a clock as well
    Clock_watch watch{Diner_info_list::get()};
    Timeout periodic, single;
    Test_diner<Diner> d;
};

TEST_F(Clock_watch_test, timeouts_notice_a_step_before_they_look_at_the_clock) {
    for (const int64_t ms : {hour, -hour, fifty_years, -fifty_years, int64_t{5}, int64_t{-5}}) {
        SCOPED_TRACE(ms);
        clock.step(ms);
        EXPECT_EQ(pass(), 0);
        EXPECT_EQ(periodic.remaining_ms(), 100) << "it keeps its phase";
        clock.advance(60);
        clock.step(-ms); // in the middle of a wait
        clock.step(ms);
        clock.step(-ms);
        clock.advance(40);
        EXPECT_EQ(pass(), 1);
        EXPECT_EQ(single.remaining_ms(), 150);
        // Submitted when nothing has noticed the step yet, in milliseconds or with an instant.
        Timeout in_ms, at;
        clock.step(ms);
        d.submit_timeout(in_ms, 10);
        d.submit_timeout(at, Atime::from_now(10));
        EXPECT_VALUES("10 10", in_ms.remaining_ms(), at.remaining_ms());
        clock.step(-ms);
        EXPECT_EQ(pass(), 0);
        clock.advance(10);
        EXPECT_EQ(pass(), 2);
        d.remove_timeout(in_ms), d.remove_timeout(at);
        d.submit_timeout(periodic, 100), d.submit_timeout(single, 250);
    }
}

TEST_F(Clock_watch_test, a_step_while_a_handler_runs_spoils_no_period) {
    d.on_timeout = [&](Timeout& t) {
        if (&t == &periodic) clock.step(hour);
    };
    for (int i = 0; i < 5; ++i) {
        clock.advance(100);
        EXPECT_EQ(pass(), i == 2 ? 2 : 1) << i;
        pass(); // notices it, if that was not done yet
        EXPECT_EQ(periodic.remaining_ms(), 100);
    }
}

TEST_F(Clock_watch_test, tells_once_and_wakes_every_diner) {
    Test_diner<> sleeper("sleeper");
    sleeper.begin(false, true);
    waiter_descriptor told;
    told.init(&Diner_info_list::get());
    EXPECT_VALUES("0 -1", watch.register_waiter(&told), watch.register_waiter(&told));
    const std::pair<int64_t, const char*> steps[] = {{hour, "forward by 3600.000"},
                                                     {-fifty_years - 7, "back by 1577880000.007"},
                                                     {-999, "back by 0.999"},
                                                     {2000000000000, "forward by 2000000000.000"}};
    unsigned n = 0;
    for (const auto& [ms, text] : steps) {
        clock.step(ms);
        EXPECT_EQ(debug_text([this] {
                      EXPECT_TRUE(watch.check());
                      EXPECT_FALSE(watch.check());
                  }),
                  std::string("Clock_watch: the clock was set ") + text + " s, timeouts move along\n");
        EXPECT_VALUES(texts(ms, ++n), watch.last_step_ms(), watch.steps());
        Diner_info_list::get().clock_stepped(1000, 0); // who still calls it by hand does no harm
        EXPECT_EQ(periodic.remaining_ms(), 100);
        ASSERT_TRUE(wait_until([&] { return sleeper.events == static_cast<int>(2 * n); }));
    }
    waiter_event e;
    EXPECT_VALUES(texts(0, watch.module_id()), told.get_event(&e, Atime::now()), e.module_id);
    EXPECT_EQ(e.id, Clock_watch::event_set);
    EXPECT_EQ(told.num_queued(), 0) << "one at a time";
    EXPECT_VALUES("0 -1", watch.deregister_waiter(&told), watch.deregister_waiter(&told));
    clock.advance(hour); // a night goes by
    EXPECT_FALSE(watch.check());
}

TEST(Clock_watches, begin_with_the_clock_as_it_is) {
    Manual_clock clock;
    Timeout t;
    Test_diner<Diner> d;
    d.begin(true);
    for (int i = 0; i < 3; ++i) {
        clock.step(hour); // nobody watches
        d.submit_timeout(t, 100);
        const Clock_watch first(Diner_info_list::get()), second(Diner_info_list::get());
        EXPECT_EQ(t.remaining_ms(), 100);
        clock.step(-hour);
        d.Diner::handle_timeout();
        EXPECT_EQ(t.remaining_ms(), 100);
    }
}

/// For the thread sanitizer: one thread sets the clock, two look, submit and check, and the diner runs.
TEST(Clock_watches, serve_many_threads) {
    Manual_clock clock;
    Clock_watch watch(Diner_info_list::get());
    const Capture lines(stderr);
    Test_diner<> d;
    d.begin();
    Timeout far[2];
    std::atomic<bool> over{false};
    std::thread setter([&] {
        for (int i = 0; i < 2000; ++i) clock.step(i % 2 ? -hour : hour), clock.advance(1);
        over = true;
    });
    std::thread submitters[2];
    for (int i = 0; i < 2; ++i) {
        submitters[i] = std::thread([&, i] {
            while (!over) {
                d.submit_timeout(far[i], 1000000);
                if (i == 0) watch.check();
            }
        });
    }
    setter.join();
    for (auto& t : submitters) t.join();
    EXPECT_EQ(d.timeouts_handled, 0) << "a step has made one due";
    for (Timeout& t : far) {
        d.submit_timeout(t, 1);
        clock.advance(1);
        EXPECT_TRUE(wait_until([&] { return !t.submitted(); }));
    }
    EXPECT_EQ(d.timeouts_handled, 2);
}

} // namespace
