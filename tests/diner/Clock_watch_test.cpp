// SPDX-License-Identifier: MIT
// With a clock of the test's own: what a real kernel does is in kernel/clock_test.cpp.
#include "glue/diner/Clock_watch.h"
#include "support/Test_diner.h"
#include "support/test.h"

namespace {

constexpr int64_t hour = 3600000, fifty_years = 1577880000000; // [ms]

TEST(Clock_watch, tells_once_and_wakes_every_diner) {
    Manual_clock clock{100000000}; // fifty years ahead there is a clock as well
    Clock_watch watch(Diner_info_list::get());
    Timeout periodic;
    periodic.period = 100;
    Test_diner<> sleeper("sleeper");
    sleeper.begin(false, true);
    sleeper.submit_timeout(periodic, 100);
    waiter_descriptor told;
    told.init(&Diner_info_list::get());
    EXPECT_VALUES("0 -1", watch.register_waiter(&told), watch.register_waiter(&told));
    const std::pair<int64_t, const char*> steps[] = {{hour, "forward by 3600.000"},
                                                     {-fifty_years - 7, "back by 1577880000.007"},
                                                     {-999, "back by 0.999"},
                                                     {2000000000000, "forward by 2000000000.000"}};
    int n = 0;
    for (const auto& [ms, text] : steps) {
        clock.step(ms);
        EXPECT_EQ(debug_text([&] { EXPECT_VALUES("true false", watch.check(), watch.check()); }),
                  std::string("Clock_watch: the clock was set ") + text + " s, timeouts move along\n");
        EXPECT_VALUES(texts(ms, ++n), watch.last_step_ms(), watch.steps());
        Diner_info_list::get().clock_stepped(1000, 0); // who still calls it by hand does no harm
        EXPECT_EQ(periodic.remaining_ms(), 100);
        ASSERT_TRUE(wait_until([&] { return sleeper.events == 1 + 2 * n; })) << "the first one is the submission's";
    }
    waiter_event e;
    EXPECT_VALUES(texts(0, watch.module_id(), Clock_watch::event_set), told.get_event(&e, Atime::now()), e.module_id,
                  e.id);
    EXPECT_EQ(told.num_queued(), 0) << "one at a time";
    EXPECT_VALUES("0 -1", watch.deregister_waiter(&told), watch.deregister_waiter(&told));
    clock.advance(hour); // a night goes by
    EXPECT_FALSE(watch.check());
}

TEST(Clock_watch, begins_with_the_clock_as_it_is) {
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

TEST(Clock_told_by_hand, moves_timeouts_at_most_to_the_last_instant_and_to_the_first) {
    Manual_clock clock;
    Timeout t;
    Test_diner<Diner> d;
    d.begin(true);
    d.submit_timeout(t, 100);
    for (const int32_t s : {INT32_MAX, INT32_MIN, INT32_MIN, 3600}) Diner_info_list::get().clock_stepped(s, 0);
    EXPECT_VALUES(texts(INT32_MIN + 3600, 0), t.expiry.time, d.remove_timeout(t));
}

/// While the list waits for the lock of a diner, that diner's handler tells of a step.
TEST(Clock_told_by_hand, by_a_handler_under_its_lock_wakes_every_diner) {
    Test_diner<> a("a"), b("b");
    b.begin(false, true);
    a.begin();
    a.on_event = [](waiter_event&) {
        EXPECT_TRUE(wait_until([] { return lseek(STDERR_FILENO, 0, SEEK_END) > 0; }));
        Diner_info_list::get().clock_stepped(3600, 0);
    };
    Capture err(stderr);
    a.post(1);
    ASSERT_TRUE(wait_until([&a] { return a.info.activity == Diner_info::activity_event; }));
    Diner_info_list::get().test_lock();
    EXPECT_TRUE(wait_until([&b] { return b.events == 1; }));
    EXPECT_EQ(err.text().find("Deadlock"), std::string::npos);
}

/// For the thread sanitizer: one thread sets the clock, two look, submit and check, and the diner runs.
TEST(Clock_watch, serves_many_threads) {
    Manual_clock clock;
    Clock_watch watch(Diner_info_list::get());
    const Capture lines(stderr);
    Test_diner<> d;
    d.begin();
    Timeout far[2];
    std::thread threads[3];
    for (int i = 0; i < 3; ++i) {
        threads[i] = std::thread([&, i] {
            for (int n = 0; n < 2000; ++n) {
                if (i < 2) d.submit_timeout(far[i], 1000000);
                if (i == 0) watch.check();
                if (i == 2) clock.step(n % 2 ? -hour : hour), clock.advance(1);
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(d.timeouts_handled, 0) << "a step has made one due";
    for (Timeout& t : far) {
        d.submit_timeout(t, 1);
        clock.advance(1);
        EXPECT_TRUE(wait_until([&] { return !t.submitted(); }));
    }
    EXPECT_EQ(d.timeouts_handled, 2);
}

} // namespace
