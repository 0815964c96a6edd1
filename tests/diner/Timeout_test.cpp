// SPDX-License-Identifier: MIT
#include "support/Manual_clock.h"
#include "support/Test_diner.h"
#include "support/child.h"
#include "util/Debug_base.h"
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <tuple>
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
    Timeout t[2];
    Timeout_manager manager; // after the timeouts: its end makes them free
    Test_diner<> diner;
};

TEST_F(Timeouts, are_made_due_now_and_copied_without_their_place_in_a_list) {
    Timeout copy(t[0]), assigned(Atime::from_now(20));
    EXPECT_TRUE(copy.remaining_ms() == 0 && assigned.remaining_ms() == 20);
    t[0].uid = 5;
    t[0].period = 7;
    ASSERT_EQ(diner.submit_timeout(t[0], 40), 0);
    for (const Timeout& c : {Timeout(t[0]), assigned = t[0]}) {
        EXPECT_TRUE(c.remaining_ms() == 40 && c.uid == 5 && c.period == 7 && !c.diner && !c.submitted());
    }
    EXPECT_TRUE(t[0].submitted());
}

TEST_F(Timeouts, are_withdrawn_by_their_destructor_whether_pending_or_handed_out) {
    for (int ms : {1000, 0}) {
        auto own = std::make_unique<Timeout>();
        diner.submit_timeout(*own, ms);
        diner.handle_timeout();
        EXPECT_EQ(own->submitted(), ms == 1000);
        const void *address = own.get(), *d = static_cast<Diner*>(&diner);
        EXPECT_EQ(debug_text([&] { own.reset(); }), text_of("Destruct %p %p\n", address, d));
        Atime expiry(false);
        EXPECT_EQ(diner.next_timeout(expiry), -1);
    }
    auto short_lived = std::make_unique<Test_diner<>>();
    short_lived->submit_timeout(t[0], 1000);
    short_lived.reset();
    t[0] = Atime::from_now(10); // would abort in a list
}

TEST_F(Timeouts, resubmitted_a_period_or_more_late_become_due_now) {
    const int rows[][3] = {{100, 99, -99}, {100, 100, 0}, {0, 5000, -5000}, {-100, 5000, -5000}, {100, -40, 40}};
    for (const auto& [period, overdue, remaining] : rows) {
        t[0].period = period;
        EXPECT_EQ(submit(t[0], -overdue), 0);
        EXPECT_EQ(t[0].remaining_ms(), remaining) << period << " " << overdue;
    }
}

TEST_F(Timeouts, are_not_rescheduled_when_the_handler_did_something_itself) {
    const std::tuple<std::function<void(Timeout&)>, bool, int> cases[] = {
        // pending then, remaining ms
        {[&](Timeout& x) { manager.submit_timeout(x, nullptr); }, true, 0},
        {[&](Timeout& x) { submit(x, 33); }, true, 33},
        {[&](Timeout& x) { manager.internal_remove(x); }, false, 0},
        {[&](Timeout&) { manager.terminate(); }, false, 0},
    };
    t[0].period = 100;
    for (const auto& [handler, pending, remaining] : cases) {
        submit(t[0], 0);
        Timeout* x = manager.expired_timeout();
        ASSERT_EQ(x, &t[0]);
        handler(*x);
        EXPECT_FALSE(manager.reschedule_periodic_timeout(*x));
        EXPECT_TRUE(manager.submitted(*x) == pending && x->remaining_ms() == remaining) << remaining;
    }
}

TEST_F(Timeouts, of_another_manager_are_refused_with_a_message) {
    Timeout_manager other;
    submit(t[0], 10);
    const Atime when = Atime::from_now(20);
    const std::string line = "Failed to remove timeout, did client get right Diner?\n";
    EXPECT_EQ(debug_text([&] {
                  EXPECT_EQ(other.remove_timeout(t[0]), -1);
                  EXPECT_FALSE(other.internal_remove(t[0]));
                  EXPECT_EQ(other.submit_timeout(t[0], &when), -1);
              }),
              line + line + line);
    EXPECT_TRUE(manager.submitted(t[0]) && !other.submitted(t[0]) && t[0].remaining_ms() == 10);
}

TEST_F(Timeouts, are_listed_by_every_operation_under_their_category) {
    t[0].uid = 3;
    t[0].period = 250;
    const void* address = &t[0];
    const std::string row = text_of("uid: 3, type: 0, nid: %p, per: 250 till_expiry: -5\r\n", address);
    const auto lists = [](const std::string& alive, const std::string& dead) {
        return "Alive timeouts:\r\n---------------\r\n" + alive + "Dead timeouts:\r\n--------------\r\n" + dead +
               "\r\n";
    };
    Debug_filter::add_filter(_JDB::jdb_timeout);
    EXPECT_EQ(debug_text([&] { submit(t[0], -5); }), lists(row, ""));
    EXPECT_EQ(debug_text([&] { manager.next_timeout(); }), lists(row, ""));
    EXPECT_EQ(debug_text([&] { manager.expired_timeout(); }), lists("", row));
    EXPECT_EQ(debug_text([&] { manager.remove_timeout(t[0]); }), lists("", ""));
    Debug_filter::remove_filter(_JDB::jdb_timeout);
}

TEST_F(Timeouts, misused_end_the_process) {
    const std::tuple<std::function<void()>, const char*, const char*> cases[] = {
        {[&] { t[0] = Atime::now(); }, "Tried to change timeout time while in a list\n",
         "glue/diner/Timeout:85: Timeout& Timeout::operator=(const Atime&): Assertion"},
        {[&] { t[0] = t[1]; }, "Tried to copy over timeout while in a list\n",
         "glue/diner/Timeout:75: Timeout& Timeout::operator=(const Timeout&): Assertion"},
        {[&] { t[0].set_diner(nullptr), t[0].~Timeout(); }, "Tried to destruct timeout while in a list\n",
         "glue/diner/Timeout:66: Timeout::~Timeout(): Assertion"},
        {[&] {
             submit(t[1], 0);
             manager.expired_timeout();
             manager.reschedule_periodic_timeout(t[0]);
         },
         "",
         "glue/diner/Timeout_manager:77: bool Timeout_manager::reschedule_periodic_timeout(Timeout&): Assertion "
         "`&timeout == cur_expired_timeout' failed.\n"},
    };
    diner.submit_timeout(t[0], 1000);
    for (const auto& [misuse, message, assertion] : cases) {
        const Child_result r = run_child(misuse);
        EXPECT_EQ(r.signal, SIGABRT);
        EXPECT_LT(r.err.find(message), r.err.find(assertion)) << r.err;
        EXPECT_LT(r.err.find(assertion), r.err.size()) << r.err;
    }
}

/// A diner keeps moving the timeout between its lists while the owner takes it away.
TEST(Timeout, is_destroyed_safely_while_its_diner_uses_it) {
    Test_diner<> d;
    d.begin();
    Capture err(stderr);
    for (int i = 0; i < 300; ++i) {
        auto t = std::make_unique<Timeout>();
        t->period = i % 3;
        d.submit_timeout(*t, 0);
        if (i % 10 == 9) { // a stop drops it meanwhile
            d.stop();
            t.reset();
            ASSERT_TRUE(d.in_state(Diner::state_stop));
            d.run();
        }
    }
    EXPECT_EQ(err.text().find("Assertion"), std::string::npos);
}

/// Against the simplest thing that can work: a list that is searched through. Bursts and trickles, many equal expiries.
TEST_F(Timeouts, agree_with_a_plain_list_through_a_long_random_use) {
    std::mt19937 random(20260401);
    const auto up_to = [&random](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
    clock.set(-3); // some are due before 1970
    std::vector<Timeout> all(400);
    Timeout_manager m;
    std::vector<Timeout*> pending;
    const auto first = [&] {
        const auto earlier = [](Timeout* a, Timeout* b) { return std::tuple(a->ms(), a) < std::tuple(b->ms(), b); };
        return pending.empty() ? nullptr : *std::min_element(pending.begin(), pending.end(), earlier);
    };
    const auto forget = [&](Timeout* x) {
        pending.erase(std::remove(pending.begin(), pending.end(), x), pending.end());
    };
    for (int step = 0; step < 6000; ++step) {
        SCOPED_TRACE(step);
        Timeout* x = &all[random() % all.size()];
        const int deed = up_to(16);
        for (int i = deed > 6 ? 0 : up_to(20) == 0 ? up_to(300) : 1; i > 0; --i) {
            x = &all[random() % all.size()];
            const Atime when = Atime::from_now(up_to(2) ? up_to(50) : up_to(300000));
            forget(x);
            x->period = up_to(2) * 20;
            ASSERT_EQ(m.submit_timeout(*x, &when), 0);
            pending.push_back(x);
        }
        if (deed >= 7 && deed < 10) {
            ASSERT_TRUE(m.remove_timeout(*x) == 0 && !m.holds(*x));
            forget(x);
        } else if (deed == 10 && up_to(100) == 0) {
            m.terminate();
            pending.clear();
        } else if (deed == 10) {
            const int ms = up_to(20) ? 0 : up_to(2000) - 1000;
            clock.advance(ms);
            m.clock_stepped(ms);
        } else if (deed > 10) {
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
        ASSERT_TRUE(pending.empty() || expiry == first()->expiry);
        ASSERT_TRUE(up_to(4) || m.next_timeout() == first());
    }
}

} // namespace
