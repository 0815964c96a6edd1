// SPDX-License-Identifier: MIT
// The system's clock is really set, by an hour and by fifty years, while timeouts run.
#include "glue/diner/Clock_watch.h"
#include "kernel/Guest.h"
#include "support/Test_diner.h"

namespace {

constexpr int64_t hour = 3600, fifty_years = 1577880000; // [s]

int64_t elapsed_ms() { return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::milliseconds(1); }

/// A one-shot timeout that knows, by a clock that nobody sets, when it should fire.
struct Single : Timeout {
    std::atomic<int64_t> due{0};
    std::atomic<bool> waiting{false};
};

/// A diner with a period of 20 ms that looks after single timeouts, too, and is given more and more of them and events.
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
        submit_timeout(periodic, periodic.period);
        submit(far, 100000);
    }
    ~Timed_diner() override { terminate(true); }
    void submit(Single& t, int ms) {
        t.due = elapsed_ms() + ms;
        t.waiting = true;
        submit_timeout(t, ms);
    }
    void load_until(const std::atomic<bool>& over) {
        for (unsigned i = 0; !over; ++i, usleep(200)) {
            Single& t = singles[i % singles.size()];
            if (!t.waiting) submit(t, static_cast<int>(5 + i % 40));
            post(static_cast<int>(i));
        }
    }
    Timeout periodic;
    Single far;
    std::deque<Single> singles{100};
    const int64_t began = elapsed_ms();
    std::atomic<int> bad{0}, fired{0};
    std::atomic<int64_t> periods{0}, latest{0};
};

TEST(Clock, set_twenty_times_under_load_leaves_timeouts_their_distance) {
    timespec t = {200000000, 0}; // 1976
    clock_settime(CLOCK_REALTIME, &t);
    const Clock_watch watch(Diner_info_list::get());
    Timed_diner diners[2];
    std::atomic<bool> over{false};
    Threads threads;
    for (Timed_diner& d : diners) threads.emplace_back([&] { d.load_until(over); });
    for (unsigned i = 0; i < 20; ++i) {
        const int64_t by[] = {hour, fifty_years, -hour, -fifty_years};
        EXPECT_TRUE(wait_until([&, before = diners[0].fired.load()] { return diners[0].fired > before + 50; }));
        clock_gettime(CLOCK_REALTIME, &t);
        t.tv_sec += by[i % 4];
        EXPECT_EQ(clock_settime(CLOCK_REALTIME, &t), 0);
        EXPECT_TRUE(wait_until([&] { return watch.steps() == i + 1; })) << "step " << i;
        EXPECT_NEAR(watch.last_step_ms(), by[i % 4] * 1000, 1000);
        EXPECT_NEAR(diners[1].far.remaining_ms(), diners[1].far.due - elapsed_ms(), 20);
    }
    over = true;
    threads.join();
    for (Timed_diner& d : diners) {
        for (Single& s : d.singles) EXPECT_TRUE(wait_until([&] { return !s.waiting; })) << "a timeout is lost";
        const auto expected = [&] { return (elapsed_ms() - d.began) / d.periodic.period; };
        EXPECT_TRUE(wait_until([&, least = expected()] { return d.periods >= least; })) << "a period is lost";
        EXPECT_LE(d.periods, expected() + 1) << "a storm";
        EXPECT_EQ(d.bad, 0);
        EXPECT_LE(d.latest, 1500) << "[ms] an emulated machine on a busy one";
        printf("%d single timeouts, at most %d ms late; %d periods of 20 ms; %d events\n", d.fired.load(),
               static_cast<int>(d.latest), static_cast<int>(d.periods), d.events.load());
    }
}

/// No step, but who has worked out in between how long to sleep must do so again.
TEST(Clock, set_and_set_back_at_once_wakes_the_diners) {
    cpu_set_t one; // on which the watch comes to look after both
    CPU_ZERO(&one);
    CPU_SET(0, &one);
    ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
    const Clock_watch watch(Diner_info_list::get(), 0);
    Test_diner<> d;
    d.begin(false, true);
    const sched_param first = {1};
    ASSERT_EQ(pthread_setschedparam(pthread_self(), SCHED_FIFO, &first), 0);
    for (int i = 0; i < 20 && !HasFailure(); ++i) {
        const int before = d.events;
        timespec t;
        clock_gettime(CLOCK_REALTIME, &t);
        for (const int64_t by : {hour, -hour}) {
            t.tv_sec += by;
            EXPECT_EQ(clock_settime(CLOCK_REALTIME, &t), 0);
        }
        EXPECT_TRUE(wait_until([&] { return d.events > before; })) << i;
    }
    d.terminate(true);
}

} // namespace
