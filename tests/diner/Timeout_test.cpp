// SPDX-License-Identifier: MIT
#include "glue/diner/Timeout.h"
#include "support/Manual_clock.h"
#include "support/Test_diner.h"
#include "support/capture.h"
#include "support/child.h"
#include <csignal>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>
#include <tuple>

namespace {

TEST(Timeout, is_made_due_now_and_copied_without_its_place_in_a_list) {
    Manual_clock clock;
    Test_diner<> d;
    Timeout t(Atime::from_now(40));
    t.uid = 5;
    t.period = 7;
    ASSERT_EQ(d.submit_timeout(t), 0);
    Timeout copy(t), assigned;
    EXPECT_EQ(assigned.remaining_ms(), 0);
    assigned = t;
    for (Timeout* c : {&copy, &assigned}) {
        EXPECT_TRUE(c->remaining_ms() == 40 && c->uid == 5 && c->period == 7);
        EXPECT_TRUE(c->diner.load() == nullptr && !c->submitted());
    }
    EXPECT_TRUE(t.submitted());
    copy = Atime::from_now(60);
    EXPECT_EQ(copy.remaining_ms(), 60);
}

TEST(Timeout, is_withdrawn_by_its_destructor_whether_pending_or_handed_out) {
    Manual_clock clock;
    Test_diner<> d;
    for (int ms : {1000, 0}) {
        auto t = std::make_unique<Timeout>();
        d.submit_timeout(*t, ms);
        d.handle_timeout();
        char line[100];
        snprintf(line, sizeof line, "Destruct %p %p\n", static_cast<void*>(t.get()), static_cast<void*>(&d));
        EXPECT_EQ(t->submitted(), ms == 1000);
        Capture err(stderr);
        t.reset();
        EXPECT_EQ(err.text(), line);
        Atime expiry(false);
        EXPECT_EQ(d.next_timeout(expiry), -1);
    }
    EXPECT_EQ(d.timeouts_handled, 1);
}

TEST(Timeout, may_outlive_its_diner) {
    Timeout t;
    auto d = std::make_unique<Test_diner<>>();
    Diner* was = d.get();
    d->submit_timeout(t, 1000);
    d.reset();
    EXPECT_EQ(t.diner.load(), was) << "the end of a diner leaves the binding";
    t = Atime::from_now(10); // would abort in a list
}

TEST(Timeout, misused_while_in_a_list_ends_the_process) {
    const std::string gone = "Tried to destruct timeout while in a list\n",
                      gone_at = "glue/diner/Timeout:66: Timeout::~Timeout(): Assertion";
    const std::tuple<void (*)(Timeout&), std::string, std::string> cases[] = {
        {[](Timeout& t) { t = Atime::now(); }, "Tried to change timeout time while in a list\n",
         "glue/diner/Timeout:85: Timeout& Timeout::operator=(const Atime&): Assertion"},
        {[](Timeout& t) { t = Timeout(); }, "Tried to copy over timeout while in a list\n",
         "glue/diner/Timeout:75: Timeout& Timeout::operator=(const Timeout&): Assertion"},
        {[](Timeout& t) { t.set_diner(nullptr), t.~Timeout(); }, gone, gone_at},
        {[](Timeout& t) {
             Test_diner<> other;
             other.submit_timeout(t); // refused, and yet bound to it
             t.~Timeout();
         },
         gone, gone_at},
    };
    for (const auto& c : cases) {
        const Child_result r = run_child([misuse = std::get<0>(c)] {
            Test_diner<> d;
            Timeout t;
            d.submit_timeout(t, 1000);
            misuse(t);
        });
        EXPECT_EQ(r.signal, SIGABRT);
        const size_t message = r.err.find(std::get<1>(c));
        EXPECT_NE(message, std::string::npos) << r.err;
        EXPECT_NE(r.err.find(std::get<2>(c), message), std::string::npos) << r.err;
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

} // namespace
