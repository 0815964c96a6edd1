// SPDX-License-Identifier: MIT
// The system's clock is really set, by an hour and by fifty years, while timeouts run.
#include "glue/diner/Clock_watch.h"
#include "kernel/Guest.h"
#include "support/Test_diner.h"
#include <sys/timex.h>

namespace {

constexpr int64_t hour = 3600, fifty_years = 1577880000; // [s]
constexpr int slack_ms = 1500;                           // for an emulated machine on a busy one

int64_t elapsed_ms() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * 1000 + t.tv_nsec / 1000000;
}

void set_clock(int64_t by_s) {
    timespec t;
    clock_gettime(CLOCK_REALTIME, &t);
    t.tv_sec += by_s;
    ASSERT_EQ(clock_settime(CLOCK_REALTIME, &t), 0);
}

/// A one-shot timeout that knows, by a clock that nobody sets, when it should fire.
struct Single : Timeout {
    std::atomic<int64_t> due{0};
    std::atomic<bool> waiting{false};
};

/// A diner with a period of 20 ms that looks after single timeouts, too.
struct Timed_diner : Test_diner<> {
    Timed_diner() {
        periodic.period = 20;
        on_timeout = [this](Timeout& t) {
            if (&t == &periodic) {
                ++periods;
                return;
            }
            auto& single = static_cast<Single&>(t);
            const int64_t late = elapsed_ms() - single.due;
            bad += !single.waiting || late < -10; // doubled, or early: timeouts have whole milliseconds
            latest = std::max(latest.load(), late);
            ++fired;
            single.waiting = false;
        };
        begin();
        began = elapsed_ms();
        submit_timeout(periodic, periodic.period);
    }
    ~Timed_diner() override { terminate(true); }
    void submit(Single& t, int ms) {
        t.due = elapsed_ms() + ms;
        t.waiting = true;
        submit_timeout(t, ms);
    }
    Timeout periodic;
    int64_t began;
    std::atomic<int> bad{0}, fired{0};
    std::atomic<int64_t> periods{0}, latest{0};
};

class Clock : public testing::Test {
protected:
    static void SetUpTestSuite() {
        timespec in_1976 = {200000000, 0};
        clock_settime(CLOCK_REALTIME, &in_1976);
    }
    void TearDown() override {
        for (Timed_diner* x : {&d, &other}) {
            const auto expected = [x] { return (elapsed_ms() - x->began) / x->periodic.period; };
            EXPECT_TRUE(wait_until([&, least = expected()] { return x->periods >= least; })) << "a period is lost";
            EXPECT_LE(x->periods, expected() + 1) << "a storm";
            EXPECT_EQ(x->bad, 0);
            EXPECT_LE(x->latest, slack_ms);
        }
    }
    Clock_watch watch{Diner_info_list::get()};
    std::deque<Single> singles{200};
    Timed_diner d, other;
};

TEST_F(Clock, set_once_timeouts_keep_their_distance) {
    for (const int64_t s : {hour, -hour, fifty_years, -fifty_years}) {
        const unsigned before = watch.steps();
        d.submit(singles[0], 300);
        other.submit(singles[1], 100000);
        set_clock(s);
        d.submit(singles[2], 200);
        EXPECT_TRUE(wait_until([&] { return !singles[0].waiting && !singles[2].waiting; })) << s;
        EXPECT_TRUE(wait_until([&] { return watch.steps() == before + 1; })) << s;
        EXPECT_LE(std::abs(watch.last_step_ms() - s * 1000), 1000);
        EXPECT_NEAR(singles[1].remaining_ms(), singles[1].due - elapsed_ms(), 20);
        other.remove_timeout(singles[1]);
    }
}

TEST_F(Clock, set_twenty_times_in_two_seconds_under_load) {
    std::atomic<bool> over{false};
    const auto load = [&](Timed_diner& own, unsigned first) {
        for (unsigned i = first; !over; i += 2, usleep(200)) {
            Single& t = singles[i % singles.size()];
            if (!t.waiting) own.submit(t, static_cast<int>(5 + i % 40));
            own.post(static_cast<int>(i));
        }
    };
    std::thread one([&] { load(d, 0); }), two([&] { load(other, 1); });
    const int64_t begin = elapsed_ms();
    for (int i = 0; i < 20; ++i) {
        set_clock(i % 4 == 0 ? hour : i % 4 == 1 ? fifty_years : i % 4 == 2 ? -hour : -fifty_years);
        while (elapsed_ms() < begin + (i + 1) * 100) usleep(1000);
    }
    over = true;
    one.join(), two.join();
    for (auto& t : singles) EXPECT_TRUE(wait_until([&] { return !t.waiting; })) << "a timeout is lost";
    EXPECT_LE(watch.steps(), 20u);
    printf("20 steps in 2 s, %u told apart: %d single timeouts, at most %d ms late; %d periods of 20 ms; %d events\n",
           watch.steps(), d.fired + other.fired, static_cast<int>(std::max(d.latest, other.latest)),
           static_cast<int>(d.periods + other.periods), d.events + other.events);
}

TEST_F(Clock, slewed_is_no_step) {
    timex t = {};
    t.modes = ADJ_OFFSET_SINGLESHOT;
    t.offset = 400000; // [us] half a millisecond in a second
    ASSERT_GE(adjtimex(&t), 0);
    for (const int64_t begin = elapsed_ms(); elapsed_ms() < begin + 2000; usleep(1000)) EXPECT_FALSE(watch.check());
    t.offset = 0;
    adjtimex(&t);
    EXPECT_EQ(watch.steps(), 0u);
}

} // namespace
