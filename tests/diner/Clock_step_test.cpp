// SPDX-License-Identifier: MIT
#include "support/Manual_clock.h"
#include "support/Test_diner.h"
#include "support/capture.h"
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

namespace {

constexpr int32_t hour = 3600, fifty_years = 1577880000; // [s]

/// Two diners whose passes the test makes itself: one with a timeout every 100 ms, both with one in 250 ms.
class Clock_step : public testing::Test {
protected:
    Clock_step() {
        a.begin(true);
        b.begin(true);
        periodic.period = 100;
    }
    void submit() {
        a.submit_timeout(periodic, 100);
        a.submit_timeout(soon, 250);
        b.submit_timeout(others, 250);
    }
    void step(int32_t s, int ms = 0) {
        clock.advance(int64_t{s} * 1000 + ms);
        Diner_info_list::get().clock_stepped(s, ms);
    }
    std::string handled() {
        std::string numbers;
        for (Test_diner<Diner>* d : {&a, &b}) {
            d->timeouts_handled = 0;
            d->handle_timeout();
            numbers += std::to_string(d->timeouts_handled) + " ";
        }
        return numbers;
    }

    Manual_clock clock;
    Timeout periodic, soon, others;
    Test_diner<Diner> a, b;
};

TEST_F(Clock_step, moves_what_is_pending_along) {
    const std::tuple<int32_t, int> steps[] = {{hour, 0},         {fifty_years, 0}, {-hour, 0},
                                              {-fifty_years, 0}, {0, 240},         {-1, -999}};
    for (const auto& [s, ms] : steps) {
        SCOPED_TRACE(std::to_string(s) + " " + std::to_string(ms));
        clock.set(s > hour ? 0 : fifty_years);
        submit();
        step(s, ms);
        EXPECT_EQ(handled(), "0 0 ");
        clock.advance(350);
        EXPECT_EQ(handled(), "4 1 ");
        EXPECT_EQ(periodic.remaining_ms(), 50) << "it keeps its phase";
    }
    submit();
    clock.advance(hour * 1000); // untold
    EXPECT_EQ(handled(), "36001 1 ");
}

TEST_F(Clock_step, in_a_handler_ends_the_pass_and_the_next_one_goes_on) {
    for (const int32_t s : {hour, -hour}) {
        submit();
        a.on_timeout = [&](Timeout& t) {
            if (&t == &periodic) step(s);
        };
        clock.advance(300); // all are due, the periodic one three times
        EXPECT_EQ(handled(), "1 1 ");
        EXPECT_EQ(periodic.remaining_ms(), -100) << "two periods are left";
        a.on_timeout = nullptr;
        EXPECT_EQ(handled(), "3 0 ");
    }
}

TEST_F(Clock_step, stops_at_the_last_instant_and_at_the_first) {
    submit();
    for (const int32_t s : {INT32_MAX, INT32_MIN, INT32_MIN, hour}) Diner_info_list::get().clock_stepped(s, 0);
    for (Timeout* t : {&soon, &periodic}) EXPECT_EQ(t->expiry.time, INT32_MIN + hour);
    EXPECT_TRUE(a.remove_timeout(soon) == 0 && a.remove_timeout(periodic) == 0);
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

} // namespace
