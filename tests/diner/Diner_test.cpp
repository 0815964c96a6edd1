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
            EXPECT_VALUES("true true 1", d.is_locked(), d.on_own_thread(), d.info.activity);
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
        EXPECT_VALUES(texts(pass ? 104 : 100, Diner_info::activity_idle), d.events, d.info.activity);
    }
}

/// Wake-ups are taken many at a time. Those that came before an event must not take its delivery along.
TEST(Diner, counts_each_of_many_wake_ups_and_handles_each_event_among_them) {
    struct Merging : Test_diner<> {
        void handle_event(waiter_event& e) override {
            merge_wake_ups(e);
            Test_diner::handle_event(e);
        }
    } merging;
    Test_diner<> swallowing;
    constexpr int each = 20000;
    for (Test_diner<>* d : {&swallowing, static_cast<Test_diner<>*>(&merging)}) {
        std::atomic<int> handled{0};
        d->on_event = [&](waiter_event& e) { handled += e.module_id == 2000; };
        d->begin(false, d == &merging);
        std::thread waker([&] {
            for (int i = 0; i < each; ++i) d->wake();
        });
        int events = 0;
        for (int i = 0; i < each; ++i) events += d->waiter.send_event({2000, i, 0}) == 0;
        waker.join();
        d->posted += events;
        EXPECT_TRUE(d->idle()) << d->info.event_count << " of " << d->posted;
        EXPECT_EQ(handled, events);
        d->terminate(true);
    }
}

TEST(Diner, keeps_the_tokens_of_events_when_a_handler_has_taken_one_itself) {
    struct Taking : Test_diner<> {
        void handle_event(waiter_event& e) override {
            if (e.module_id == 2000) seen += e.id;
            if (e.module_id == 2000 || std::exchange(taken, true)) return;
            for (int id : {1, 10, 100}) post(id);
            waiter_event own;
            waiter.get_event(&own);
            handle_event(own);
            merge_wake_ups(e);
            --posted; // the loop does not count it
        }
        bool taken = false;
        std::atomic<int> seen{0};
    } d;
    d.begin(false, true);
    d.wake();
    EXPECT_TRUE(d.idle());
    d.terminate(true);
    EXPECT_EQ(d.seen, 111);
}

TEST(Diner, prints_and_flushes_what_its_debug_level_asks_for) {
    // What is printed of an event and of a timeout: - nothing, p it, f it and flushes.
    const std::map<unsigned char, std::string> outputs = {{0, "--"},   {10, "p-"},  {11, "-p"},  {12, "--"},
                                                          {50, "--"},  {51, "p-"},  {52, "pp"},  {100, "fp"},
                                                          {101, "pf"}, {150, "pp"}, {151, "fp"}, {152, "ff"}};
    const auto output = [](const std::string& line, auto act) {
        bool flushed = false;
        const std::string text = debug_text(act, &flushed);
        return text.empty() ? "-" : text != line ? text : flushed ? "f" : "p";
    };
    for (const auto& [level, outputs_of_both] : outputs) {
        Timeout t;
        Test_diner<> running("dbg"), parked("dbg");
        for (auto* d : {&running, &parked}) d->info.set_debug_level(level), d->begin(d == &parked);
        const auto handle = [&] { parked.submit_timeout(t, 0), parked.handle_timeout(), parked.remove_timeout(t); };
        EXPECT_EQ(output("Evt{dbg,2000,5}\n", [&] { running.post(5), running.idle(), running.get_state(); }) +
                      output(text_of("Tim{dbg,%p}\n", static_cast<void*>(&t)), handle),
                  outputs_of_both)
            << int(level);
    }
}

TEST(Diner, lock_waits_as_long_as_it_can_when_that_is_not_long_enough) {
    Test_diner<> d;
    for (int ticks : {INT_MAX / 10, INT_MAX / 10 + 1, INT_MAX}) {
        d.lock(-1);
        std::atomic<bool> over{false};
        std::thread other([&] {
            EXPECT_TRUE(d.lock(ticks)) << ticks;
            d.unlock();
            over = true;
        });
        EXPECT_FALSE(wait_until([&] { return over.load(); }, std::chrono::milliseconds(30))) << "it has begun to wait";
        d.unlock();
        other.join();
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
    d.submit_timeout(t[1], Atime::from_now(30)); // submitted by another thread: the diner must look again
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
