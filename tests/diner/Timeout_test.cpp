// SPDX-License-Identifier: MIT
#include "support/Test_diner.h"
#include "support/test.h"
#include "util/Debug_base.h"

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

TEST_F(Timeouts, are_copied_without_their_place_in_a_list) {
    Timeout assigned = Atime::from_now(20);
    EXPECT_VALUES("0 20", t[1].remaining_ms(), assigned.remaining_ms());
    t[0].uid = 5;
    t[0].period = 7;
    ASSERT_EQ(diner.submit_timeout(t[0], 40), 0);
    for (const Timeout& c : {Timeout(t[0]), assigned = t[0]})
        EXPECT_VALUES("40 5 7 true false", c.remaining_ms(), c.uid, c.period, !c.diner, c.submitted());
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
    {
        Test_diner<> short_lived;
        short_lived.submit_timeout(t[0], 1000);
    }
    t[0] = Atime::from_now(10); // would abort in a list
}

TEST_F(Timeouts, show_in_their_node_that_they_are_in_a_list) {
    c_bstree<avl_bstree, Timeout> other;
    other.create<Timeout_manager::timeouts_compare>();
    const auto refused = [&other](Timeout& x) {
        return x.in_tree() && other.remove(&x) == -1 &&
               run_child([&] { other.insert(&x); }).out == "BUG: avl_bstree::insert, already in a tree.\r\n";
    };
    std::vector<Timeout> many(100);
    for (size_t i = 0; i < many.size(); ++i) submit(many[i], 1000 + static_cast<int>(i));
    EXPECT_VALUES("true null null", refused(many[0]), other.next(&many[0]), other.nearby(&many[0], bst_less))
        << "just submitted";
    manager.next_timeout();
    for (Timeout* x : {&many[0], &many[99]}) EXPECT_TRUE(refused(*x)) << "put in order";
    for (Timeout& x : t) submit(x, 0);
    auto pass = manager.begin_pass();
    EXPECT_VALUES(texts(&t[0], true), manager.expired_timeout(pass), refused(t[0])) << "handed out";
    submit(t[0], 0);
    EXPECT_VALUES(texts(&t[1], true), manager.expired_timeout(pass), refused(t[0])) << "left to the next pass";
    EXPECT_VALUES(texts(nullptr, &t[0], true), manager.expired_timeout(pass), manager.next_timeout(), refused(t[0]));
    manager.remove_timeout(t[0]);
    EXPECT_VALUES("false 0", t[0].in_tree(), other.insert(&t[0]));
    const std::string line = "Failed to remove timeout, did client get right Diner?\n";
    EXPECT_EQ(debug_text([&] { EXPECT_EQ(submit(t[0], 0) + manager.remove_timeout(t[0]), -2); }), line + line);
    for (const auto& misuse : {std::function<void()>([&] { t[0] = Atime::now(); }), {[&] { t[0].~Timeout(); }}})
        EXPECT_EQ(run_child(misuse).signal, SIGABRT) << "in the other tree";
    EXPECT_VALUES(texts(&t[0], 0, 0), other.first(), other.integrity(), other.remove(&t[0]));
    manager.terminate();
    for (Timeout& x : many) ASSERT_FALSE(x.in_tree());
}

TEST_F(Timeouts, made_anew_for_the_past_in_every_step_end_a_pass_too) {
    std::vector<std::unique_ptr<Timeout>> made;
    diner.on_timeout = [&](Timeout&) {
        made.push_back(std::make_unique<Timeout>());
        diner.submit_timeout(*made.back(), -1000);
    };
    diner.submit_timeout(t[0], 0);
    diner.handle_timeout();
    EXPECT_EQ(made.size(), 10001u);
    for (auto& x : made) diner.remove_timeout(*x);
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
    const std::function<void(Timeout&)> handlers[] = {
        [&](Timeout& x) { manager.submit_timeout(x, nullptr); }, [&](Timeout& x) { submit(x, 33); },
        [&](Timeout& x) { manager.internal_remove(x); }, [&](Timeout&) { manager.terminate(); }};
    std::string outcome;
    t[0].period = 100;
    for (const auto& handler : handlers) {
        submit(t[0], 0);
        handler(*manager.expired_timeout());
        EXPECT_FALSE(manager.reschedule_periodic_timeout(t[0]));
        outcome += text_of(manager.submitted(t[0]) ? "pending in %d, " : "free, ", t[0].remaining_ms());
    }
    EXPECT_EQ(outcome, "pending in 0, pending in 33, free, free, ");
}

TEST_F(Timeouts, of_another_manager_are_refused_with_a_message) {
    Timeout_manager other;
    submit(t[0], 10);
    const std::string line = "Failed to remove timeout, did client get right Diner?\n";
    EXPECT_EQ(debug_text([&] {
                  EXPECT_EQ(other.remove_timeout(t[0]) + other.submit_timeout(t[0], nullptr), -2);
                  EXPECT_FALSE(other.internal_remove(t[0]));
              }),
              line + line + line);
    Debug_filter::add_filter(_JDB::jdb_timeout);
    EXPECT_EQ(debug_text([&] { other.submit_timeout(t[0], nullptr); }), line) << "no lists";
    Debug_filter::remove_filter(_JDB::jdb_timeout);
    EXPECT_VALUES("true false 10", manager.submitted(t[0]), other.submitted(t[0]), t[0].remaining_ms());
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
    const auto reschedule_another = [&] {
        submit(t[1], 0);
        manager.expired_timeout();
        manager.reschedule_periodic_timeout(t[0]);
    };
    const std::tuple<std::function<void()>, const char*, const char*> cases[] = {
        {[&] { t[0] = Atime::now(); }, "Tried to change timeout time while in a list\n",
         "glue/diner/Timeout:85: Timeout& Timeout::operator=(const Atime&): Assertion"},
        {[&] { t[0] = t[1]; }, "Tried to copy over timeout while in a list\n",
         "glue/diner/Timeout:75: Timeout& Timeout::operator=(const Timeout&): Assertion"},
        {[&] { t[0].set_diner(nullptr), t[0].~Timeout(); }, "Tried to destruct timeout while in a list\n",
         "glue/diner/Timeout:66: Timeout::~Timeout(): Assertion"},
        {reschedule_another, "",
         "glue/diner/Timeout_manager:77: bool Timeout_manager::reschedule_periodic_timeout(Timeout&): Assertion"},
    };
    diner.submit_timeout(t[0], 1000);
    for (const auto& [misuse, message, assertion] : cases) {
        const Child_result r = run_child(misuse);
        const size_t told = r.err.find(message), failed = r.err.find(assertion);
        EXPECT_VALUES(texts(SIGABRT, true, true), r.signal, told < failed, failed < r.err.size()) << r.err;
    }
}

/// A diner keeps moving the timeout between its lists while the owner takes it away.
TEST(Timeout, is_destroyed_safely_while_its_diner_uses_it) {
    Test_diner<> d;
    d.begin();
    const Capture withdrawals(stderr);
    for (int i = 0; i < 300; ++i) {
        {
            Timeout t;
            t.period = i % 3;
            d.submit_timeout(t, 0);
            if (i % 10 == 9) d.stop(); // which drops it meanwhile
        }
        ASSERT_TRUE(i % 10 != 9 || (d.in_state(Diner::state_stop) && d.run()));
    }
}

/// Against the simplest thing that can work. Bursts and trickles, many equal expiries.
TEST_F(Timeouts, agree_with_an_ordered_set_through_a_long_random_use) {
    std::mt19937 random(20260401);
    const auto up_to = [&random](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
    clock.set(-3); // some are due before 1970
    std::vector<Timeout> all(400);
    Timeout_manager m;
    std::set<std::pair<int64_t, Timeout*>> pending; // those of one expiry by address
    for (int step = 0; step < 6000; ++step) {
        for (int i = up_to(20) ? 1 : up_to(300); i > 0; --i) {
            Timeout& x = all[random() % all.size()];
            const Atime when = Atime::from_now(up_to(2) ? up_to(50) : up_to(300000));
            pending.erase({x.ms(), &x});
            x.period = up_to(2) * (1 + up_to(20));
            const bool submitted = up_to(10) < 7;
            ASSERT_EQ(submitted ? m.submit_timeout(x, &when) : m.remove_timeout(x), 0) << step;
            if (submitted) pending.emplace(x.ms(), &x);
            ASSERT_EQ(m.submitted(x), submitted) << step;
        }
        for (int i = step % 2 ? up_to(20) : 0; i > 0; --i) {
            Timeout* const first = pending.empty() ? nullptr : pending.begin()->second;
            ASSERT_TRUE(up_to(4) || m.next_timeout() == first) << step;
            Timeout* const due = m.expired_timeout();
            ASSERT_EQ(due, first && first->remaining_ms() <= 0 ? first : nullptr) << step;
            if (due) pending.erase(pending.begin());
            if (due) {
                ASSERT_EQ(m.reschedule_periodic_timeout(*due), due->period > 0) << step;
                if (due->period > 0) pending.emplace(due->ms(), due);
            }
        }
        const Atime begin = Atime::now();
        std::set<Timeout*> ran, ran_and_submitted;
        for (auto pass = m.begin_pass(); step % 4 == 0;) {
            auto expected = pending.begin();
            while (expected != pending.end() && ran_and_submitted.count(expected->second)) ++expected;
            const bool none = expected == pending.end() || expected->first > Timeout::ms_of(begin);
            Timeout* const due = m.expired_timeout(pass);
            ASSERT_EQ(due, none ? nullptr : expected->second) << step;
            if (!due) break;
            pending.erase(expected);
            ran.insert(due);
            Timeout& other = up_to(3) ? *due : all[random() % all.size()];
            if (up_to(2)) {
                const Atime when = begin + (up_to(20) - 15);
                pending.erase({other.ms(), &other});
                m.submit_timeout(other, &when);
                pending.emplace(other.ms(), &other);
                if (ran.count(&other)) ran_and_submitted.insert(&other);
            }
            ASSERT_TRUE(up_to(10) || m.next_timeout() == (pending.empty() ? nullptr : pending.begin()->second)) << step;
            if (m.reschedule_periodic_timeout(*due)) pending.emplace(due->ms(), due);
        }
        Atime expiry(false);
        ASSERT_EQ(m.next_expiry(expiry), !pending.empty()) << step;
        ASSERT_TRUE(pending.empty() || expiry == pending.begin()->second->expiry) << step;
        clock.advance(up_to(10));
    }
}

} // namespace
