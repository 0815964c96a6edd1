// SPDX-License-Identifier: MIT
#include "glue/diner/Timeout_manager.h"
#include "support/Manual_clock.h"
#include "support/capture.h"
#include "support/child.h"
#include "util/Debug_base.h"
#include <algorithm>
#include <csignal>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

namespace {

class Timeouts : public testing::Test {
protected:
    /// Submit `t` to fall due in `ms`.
    int submit(Timeout& t, int ms) {
        const Atime when = Atime::from_now(ms);
        return manager.submit_timeout(t, &when);
    }

    Manual_clock clock;
    Timeout t[4];
    Timeout_manager manager; // after the timeouts: its end makes them free
};

TEST_F(Timeouts, resubmitted_a_period_or_more_late_become_due_now) {
    const struct {
        int period, overdue, remaining;
    } cases[] = {{100, 99, -99}, {100, 100, 0}, {100, 5000, 0}, {0, 5000, -5000}, {-100, 5000, -5000}, {100, -40, 40}};
    for (const auto& c : cases) {
        t[0].period = c.period;
        EXPECT_EQ(submit(t[0], -c.overdue), 0);
        EXPECT_EQ(t[0].remaining_ms(), c.remaining) << c.period << " " << c.overdue;
    }
}

TEST_F(Timeouts, are_not_rescheduled_when_the_handler_did_something_itself) {
    const struct {
        const char* what;
        void (*handler)(Timeout_manager&, Timeout&);
        bool pending;
        int remaining;
    } cases[] = {
        {"submits it", [](Timeout_manager& m, Timeout& x) { m.submit_timeout(x, nullptr); }, true, 0},
        {"re-times it",
         [](Timeout_manager& m, Timeout& x) {
             const Atime when = Atime::from_now(33);
             m.submit_timeout(x, &when);
         },
         true, 33},
        {"removes it", [](Timeout_manager& m, Timeout& x) { m.remove_timeout(x); }, false, 0},
        {"ends all", [](Timeout_manager& m, Timeout&) { m.terminate(); }, false, 0},
    };
    for (const auto& c : cases) {
        t[0].period = 100;
        submit(t[0], 0);
        Timeout* x = manager.expired_timeout();
        ASSERT_EQ(x, &t[0]);
        c.handler(manager, *x);
        EXPECT_FALSE(manager.reschedule_periodic_timeout(*x)) << c.what;
        EXPECT_EQ(manager.submitted(*x), c.pending) << c.what;
        EXPECT_EQ(x->remaining_ms(), c.remaining) << c.what;
        manager.terminate();
    }
}

TEST_F(Timeouts, of_another_manager_are_refused_with_a_message) {
    Timeout_manager other;
    submit(t[0], 10);
    const Atime when = Atime::from_now(20);
    Capture err(stderr);
    EXPECT_EQ(other.remove_timeout(t[0]), -1);
    EXPECT_EQ(other.submit_timeout(t[0], &when), -1);
    const std::string line = "Failed to remove timeout, did client get right Diner?\n";
    EXPECT_EQ(err.text(), line + line);
    EXPECT_TRUE(manager.submitted(t[0]));
    EXPECT_FALSE(other.submitted(t[0]));
    EXPECT_EQ(t[0].remaining_ms(), 10);
}

TEST_F(Timeouts, compare_by_clamped_difference_then_address) {
    const struct { int ms, result; } cases[] = {{1, -1}, {-1, 1}, {1500, -1500}, {-604799999, 604799999}};
    for (const auto& c : cases) {
        t[1].expiry = t[0].expiry + c.ms;
        EXPECT_EQ(Timeout_manager::timeouts_compare(&t[0], &t[1]), c.result);
    }
    t[1].expiry = t[0].expiry + 604800000 + 86400000;
    EXPECT_EQ(Timeout_manager::timeouts_compare(&t[0], &t[1]), -604800000) << "clamped to a week";
    t[1].expiry = t[0].expiry;
    EXPECT_LT(Timeout_manager::timeouts_compare(&t[0], &t[1]), 0);
    EXPECT_GT(Timeout_manager::timeouts_compare(&t[1], &t[0]), 0);
}

TEST_F(Timeouts, are_listed_by_every_operation_under_their_category) {
    t[0].uid = 3;
    t[0].period = 250;
    char row[100];
    snprintf(row, sizeof row, "uid: 3, type: 0, nid: %p, per: 250 till_expiry: -5\r\n", static_cast<void*>(&t[0]));
    const std::string alive = "Alive timeouts:\r\n---------------\r\n", dead = "Dead timeouts:\r\n--------------\r\n";
    const std::string none = alive + dead + "\r\n", pending = alive + row + dead + "\r\n",
                      handed_out = alive + dead + row + "\r\n";
    Debug_filter::add_filter(_JDB::jdb_timeout);
    Capture err(stderr);
    submit(t[0], -5);
    manager.next_timeout();
    manager.expired_timeout();
    manager.remove_timeout(t[0]);
    EXPECT_EQ(err.text(), pending + pending + handed_out + none);
    Debug_filter::remove_filter(_JDB::jdb_timeout);
}

TEST_F(Timeouts, rescheduled_out_of_turn_end_the_process) {
    const Child_result r = run_child([this] {
        submit(t[0], 0);
        manager.expired_timeout();
        manager.reschedule_periodic_timeout(t[1]);
    });
    EXPECT_EQ(r.signal, SIGABRT);
    EXPECT_NE(r.err.find("glue/diner/Timeout_manager:77: bool Timeout_manager::reschedule_periodic_timeout(Timeout&): "
                         "Assertion `&timeout == cur_expired_timeout' failed.\n"),
              std::string::npos)
        << r.err;
}

/// Against the simplest thing that can work: a list that is searched through. Bursts and trickles, many equal expiries.
TEST_F(Timeouts, agree_with_a_plain_list_through_a_long_random_use) {
    const unsigned seed = 20260401;
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const auto up_to = [&random](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
    clock.set(-3); // some are due before 1970
    std::vector<Timeout> all(400);
    Timeout_manager m;
    std::vector<Timeout*> pending;
    const auto earlier = [](Timeout* a, Timeout* b) { return a->expiry != b->expiry ? a->expiry < b->expiry : a < b; };
    const auto first = [&] {
        return pending.empty() ? nullptr : *std::min_element(pending.begin(), pending.end(), earlier);
    };
    const auto forget = [&pending](Timeout* x) {
        pending.erase(std::remove(pending.begin(), pending.end(), x), pending.end());
    };
    for (int step = 0; step < 6000; ++step) {
        SCOPED_TRACE(step);
        Timeout* x = &all[random() % all.size()];
        switch (up_to(8)) {
        case 0:
        case 1:
        case 2:
            for (int i = up_to(20) == 0 ? up_to(300) : 1; i > 0; --i) {
                x = &all[random() % all.size()];
                const Atime when = Atime::from_now(up_to(2) ? up_to(50) : up_to(300000));
                forget(x);
                x->period = up_to(2) * 20;
                ASSERT_EQ(m.submit_timeout(*x, &when), 0);
                pending.push_back(x);
            }
            break;
        case 3:
        case 4:
            ASSERT_EQ(m.remove_timeout(*x), 0);
            ASSERT_FALSE(m.holds(*x));
            forget(x);
            break;
        case 5:
            if (up_to(200) == 0) {
                m.terminate();
                pending.clear();
            } else if (up_to(20) == 0) {
                const int ms = up_to(2000) - 1000;
                clock.advance(ms);
                m.clock_stepped(ms);
            }
            break;
        default:
            clock.advance(up_to(20));
            for (int i = up_to(20); i >= 0; --i) {
                Timeout* due = first();
                if (due && due->remaining_ms() > 0) due = nullptr;
                ASSERT_EQ(m.expired_timeout(), due);
                if (!due || m.reschedule_periodic_timeout(*due)) continue;
                ASSERT_TRUE(m.holds(*due) && !m.submitted(*due)) << "handed out, not pending";
                forget(due);
            }
        }
        ASSERT_EQ(m.submitted(*x), std::count(pending.begin(), pending.end(), x) == 1);
        Atime expiry(false);
        ASSERT_EQ(m.next_expiry(expiry), !pending.empty());
        if (pending.empty()) continue;
        ASSERT_EQ(expiry, first()->expiry);
        if (up_to(4) == 0) {
            ASSERT_EQ(m.next_timeout(), first());
        }
    }
}

} // namespace
