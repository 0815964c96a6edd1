// SPDX-License-Identifier: MIT
#include "glue/diner/Diner_selector.h"
#include "support/Test_diner.h"
#include "support/capture.h"
#include "support/child.h"
#include <csignal>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace {

using State = Diner::State;

/// Bring a diner into a state; its thread is held there by the gate where it would move on by itself.
void bring(Test_diner<>& d, State s) {
    if (s == Diner::state_uninit) return;
    d.begin(s == Diner::state_stop);
    if (s == Diner::state_stopping || s == Diner::state_term) d.lock_gate.shut();
    if (s == Diner::state_stopping) d.stop();
    if (s == Diner::state_term) d.terminate(false);
    if (s == Diner::state_gone) d.terminate(true);
    ASSERT_EQ(d.get_state(), s);
}

TEST(Lifecycle, every_call_in_every_state) {
    const std::string uncreated = "Task not created ANON_DNR\r\n";
    using D = Diner;
    /// What start(), stop() and terminate() lead to in each state: the result, the state after the thread has gone on
    /// and what is printed, its "@" standing for the address.
    const struct {
        State state;
        struct {
            int result;
            State then;
            std::string printed;
        } calls[3];
        // clang-format off
    } cases[] = {
        {D::state_uninit, {{-1, D::state_uninit, uncreated}, {-1, D::state_uninit, ""},
                           {0, D::state_uninit, "terminate @ called from state 3\n"}}},
        {D::state_stop, {{0, D::state_run, ""}, {-1, D::state_stop, ""}, {0, D::state_gone, ""}}},
        {D::state_run, {{-1, D::state_run, ""}, {0, D::state_stop, ""}, {0, D::state_gone, ""}}},
        {D::state_stopping, {{-1, D::state_stop, ""}, {-1, D::state_stop, ""}, {0, D::state_gone, ""}}},
        {D::state_term, {{-1, D::state_gone, ""}, {-1, D::state_gone, ""},
                         {0, D::state_gone, "terminate @ called from state 4\n"}}},
        {D::state_gone, {{-1, D::state_gone, ""}, {-1, D::state_gone, ""}, {0, D::state_gone, ""}}},
    };
    // clang-format on
    for (const auto& c : cases) {
        for (int call = 0; call < 3; ++call) {
            SCOPED_TRACE(std::to_string(c.state) + " " + std::to_string(call));
            const auto& [result, then, text] = c.calls[call];
            Test_diner<> d;
            bring(d, c.state);
            Capture err(stderr);
            EXPECT_EQ(call == 0 ? d.start() : call == 1 ? d.stop() : (d.terminate(false), 0), result);
            d.lock_gate.open();
            char address[20];
            snprintf(address, sizeof address, "%lx", reinterpret_cast<unsigned long>(static_cast<Diner*>(&d)));
            const size_t at = text.find('@');
            EXPECT_EQ(err.text(), at == std::string::npos ? text : std::string(text).replace(at, 1, address));
            EXPECT_TRUE(d.in_state(then)) << d.get_state();
            EXPECT_EQ(d.terminated(), then == Diner::state_gone);
        }
    }
}

TEST(Lifecycle, hooks_waiter_and_checkpoints_follow_start_and_stop) {
    Test_diner<> d;
    d.begin(true);
    const auto at = [&d](int line) { return wait_until([&] { return d.info.checkpoint_line == line; }); };
    d.on_start = [&d] { EXPECT_FALSE(d.is_locked()) << "it may take the lock"; };
    for (int round = 1; round <= 2; ++round) {
        ASSERT_TRUE(d.start() == 0 && at(80));
        EXPECT_STREQ(d.info.checkpoint_file.load(), "glue/diner/Diner");
        d.post(1);
        ASSERT_TRUE(d.idle() && d.stop() == 0 && d.in_state(Diner::state_stop) && at(110));
        EXPECT_TRUE(d.starts == round && d.stops == round && d.events == round);
        d.waiter.send_event(waiter_event(2000, 2, 0), false, false);
        EXPECT_EQ(d.waiter.num_queued(), 0) << "posts to a stopped diner are dropped";
    }
}

TEST(Lifecycle, a_diner_parks_after_what_was_queued_before) {
    Test_diner<> d;
    Gate busy;
    busy.shut();
    d.on_event = [&](waiter_event&) {
        d.unlock(); // so that stop() gets in
        busy.pass();
        d.lock(-1);
    };
    d.begin();
    for (int i = 0; i < 5; ++i) d.post(i);
    ASSERT_TRUE(busy.reached());
    EXPECT_EQ(d.stop(), 0);
    busy.open();
    EXPECT_TRUE(d.in_state(Diner::state_stop) && d.events == 5);
}

TEST(Lifecycle, without_a_free_event_a_diner_cannot_stop_but_terminate) {
    Test_diner<> d;
    d.begin(false, true);
    std::vector<waiter_event_node*> all;
    while (waiter_event_node* n = Diner_info_list::get().get_blank_event()) all.push_back(n);
    EXPECT_TRUE(d.stop() == -1 && d.get_state() == Diner::state_run);
    EXPECT_EQ(d.starts, 2) << "the stop hook is undone";
    d.wake();
    EXPECT_TRUE(d.idle()) << "it runs on";
    d.terminate(true);
    EXPECT_TRUE(d.terminated());
    for (waiter_event_node* n : all) Diner_info_list::get().return_used_event(n);
}

TEST(Lifecycle, a_diner_whose_waiter_was_disabled_still_stops_and_terminates) {
    Test_diner<> d;
    d.begin();
    d.waiter.set_enabled(false);
    ASSERT_TRUE(d.stop() == 0 && d.in_state(Diner::state_stop) && d.run());
    d.waiter.set_enabled(false);
    d.terminate(true);
    EXPECT_TRUE(d.terminated());
}

TEST(Start_race, a_second_start_before_the_first_is_taken_leaves_no_token_behind) {
    Test_diner<> d;
    d.begin(true);
    d.lock_gate.shut();
    EXPECT_EQ(d.start(), 0);
    ASSERT_TRUE(d.lock_gate.reached()); // awake, and not yet running
    EXPECT_EQ(d.start(), 0);
    d.lock_gate.open();
    ASSERT_TRUE(d.in_state(Diner::state_run));
    EXPECT_EQ(d.get_state(), Diner::state_run); // by the lock: its thread waits for events now
    EXPECT_EQ(d.start_tokens(), 0) << "it would revive the diner after the next stop";
}

/// One thread is held inside start(), in the hook, while `meanwhile` happens.
int start_interrupted_by(Test_diner<>& d, const std::function<void()>& meanwhile) {
    Gate hook;
    hook.shut();
    d.on_start = [&hook] { hook.pass(); };
    int result = 99;
    std::thread starter([&] { result = d.start(); });
    EXPECT_TRUE(hook.reached());
    d.on_start = nullptr;
    meanwhile();
    hook.open();
    starter.join();
    return result;
}

TEST(Start_race, a_start_overtaken_by_another_start_gives_no_token) {
    Test_diner<> d;
    d.begin(true);
    EXPECT_EQ(start_interrupted_by(d, [&] { EXPECT_TRUE(d.run()); }), 0);
    EXPECT_EQ(d.get_state(), Diner::state_run);
    EXPECT_EQ(d.start_tokens(), 0);
}

TEST(Start_race, a_start_overtaken_by_a_whole_run_starts_a_diner_that_hears) {
    Test_diner<> d;
    d.begin(true);
    const auto whole_run = [&] { EXPECT_TRUE(d.run() && d.stop() == 0 && d.in_state(Diner::state_stop)); };
    EXPECT_EQ(start_interrupted_by(d, whole_run), 0);
    ASSERT_TRUE(d.in_state(Diner::state_run));
    d.post(1);
    EXPECT_TRUE(d.idle());
}

TEST(Start_race, a_start_overtaken_by_the_end_leaves_the_waiter_disabled) {
    Test_diner<> d;
    d.begin(true);
    EXPECT_EQ(start_interrupted_by(d, [&] { d.terminate(true); }), -1);
    d.waiter.send_event(waiter_event(2000, 1, 0), false, false);
    EXPECT_EQ(d.waiter.num_queued(), 0);
}

/// Both kinds of diner, destroyed the moment that terminate() returns, parked, running or never initialised.
template <class Base>
void come_and_go() {
    for (int i = 0; i < 100; ++i) {
        auto d = std::make_unique<Test_diner<Base>>();
        if (i % 4) d->begin(i % 2);
        if (i % 4 == 1) d->post(i);
    }
    EXPECT_EQ(Diner_info_list::get().print_alive(), 0);
    EXPECT_EQ(Diner_info_list::get().num_free_events(), module_man::pool_size);
}
TEST(Lifecycle, diners_with_a_lock_come_and_go) { come_and_go<Diner::Protection>(); }
TEST(Lifecycle, diners_without_a_lock_come_and_go) { come_and_go<Diner>(); }

TEST(Lifecycle, two_diners_may_share_a_lock) {
    struct Sharing : Diner_external_protection<Diner> {
        using Diner_external_protection<Diner>::Diner_external_protection;
        using Diner::handle_timeout;
        void handle_event(waiter_event&) override {}
        void handle_timeout(Timeout&) override {}
    };
    Mutex mutex;
    Sharing a(mutex), b(mutex);
    ASSERT_TRUE(a.lock(-1));
    EXPECT_TRUE(b.is_locked());
    std::thread([&b] {
        EXPECT_FALSE(b.is_locked());
        EXPECT_FALSE(b.lock(1));
    }).join();
    b.unlock();
    EXPECT_EQ(mutex.status(), Mutex::status_free);
}

/// Everything at once, for the sanitizers; nothing may be lost at the end.
TEST(Stress, starts_stops_posts_and_timeouts_from_all_sides) {
    constexpr int num_diners = 3, rounds = 400;
    Test_diner<> diners[num_diners];
    for (auto& d : diners) d.begin();
    std::vector<std::thread> threads;
    for (unsigned n = 0; n < 4; ++n) {
        threads.emplace_back([&diners, n] {
            Timeout mine;
            for (unsigned i = 0; i < rounds; ++i) {
                Test_diner<>& d = diners[(i / 50 + n) % num_diners];
                if (i % 50 == 0) diners[(i / 50 + n + num_diners - 1) % num_diners].remove_timeout(mine);
                const unsigned deed = (i + n) % 6;
                if (deed == 0) d.stop();
                if (deed == 1) d.start();
                if (deed == 2 || deed == 3) d.post(static_cast<int>(i));
                if (deed == 4) d.submit_timeout(mine, static_cast<int>(i % 3));
                if (deed != 5) continue;
                Timeout other;
                other.period = 1;
                d.submit_timeout(other, 0);
                d.submitted(other);
                d.get_state();
                if (i % 30 == 5) Diner_info_list::get().test_lock();
            }
            for (auto& d : diners) {
                if (mine.diner == &d) d.remove_timeout(mine);
            }
        });
    }
    for (auto& t : threads) t.join();
    for (auto& d : diners) {
        ASSERT_TRUE(wait_until([&] { return d.start() == 0 || d.get_state() == Diner::state_run; }));
        ASSERT_TRUE(d.in_state(Diner::state_run));
        const int before = d.events;
        d.post(1);
        EXPECT_TRUE(wait_until([&] { return d.events > before; })) << "it still hears";
        d.terminate(true);
    }
    EXPECT_EQ(Diner_info_list::get().num_free_events(), module_man::pool_size);
}

/// Older than the status list, so they are destroyed after it.
Test_diner<> global_diner;
Test_diner<Diner> global_diner_without_lock;

template <class D>
void handle_one(D& d, std::function<void(waiter_event&)> handler) {
    d.on_event = std::move(handler);
    d.begin();
    d.post(1);
    d.idle();
}

void destroy_without_terminate() {
    struct Careless : Diner::Protection {
        using Diner::handle_timeout;
        void handle_event(waiter_event&) override {}
        void handle_timeout(Timeout&) override {}
    } d;
    d.init(Diner_info_list::get(), nullptr, Diner::DESCRIPTOR_DEFAULT, 0, 0, false, true);
}
void terminate_in_handler() {
    Test_diner<> d;
    handle_one(d, [&d](waiter_event&) { d.terminate(false); });
}
void exit_in_handler() {
    Test_diner<> parked, d;
    parked.begin(true);
    handle_one(d, [](waiter_event&) { exit(7); });
}
void exit_in_handler_of_a_global() {
    handle_one(global_diner, [](waiter_event&) { exit(8); });
}
void exit_in_handler_of_a_global_without_lock() {
    handle_one(global_diner_without_lock, [](waiter_event&) { exit(8); });
}
void leave_its_thread_stuck() {
    Test_diner<> d;
    d.begin();
    d.lock_gate.shut();
    d.terminate(true);
}
void initialise_while_running() {
    Test_diner<> d;
    d.begin();
    d.begin();
}
void select_two_of_one_name() {
    Diner_selector s;
    Test_diner<> a("same", 1), b("same", 1);
    a.begin(true, false, &s);
    b.begin(true, false, &s);
}

TEST(Misuse, ends_the_process_with_its_message_and_status) {
    const std::tuple<void (*)(), int, int, const char*> cases[] = {
        {destroy_without_terminate, SIGABRT, -1, "Need to call terminate() from top level destructor\n"},
        {terminate_in_handler, SIGABRT, -1, "No terminate, are we locked\n"},
        {leave_its_thread_stuck, SIGABRT, -1, "No terminate, did we call delete ourself\n"},
        {initialise_while_running, 0, 117, "Init called with valid task\n"},
        {select_two_of_one_name, 0, 152, "Problem setting selector!\r\n"},
        {exit_in_handler, 0, 7, ""},
        {exit_in_handler_of_a_global, 0, 8, ""},
        {exit_in_handler_of_a_global_without_lock, 0, 8, ""},
    };
    for (const auto& [misuse, signal, status, message] : cases) {
        const Child_result r = run_child(misuse);
        EXPECT_TRUE(r.signal == signal && r.status == status) << r.signal << " " << r.status << message;
        EXPECT_NE(r.err.find(message), std::string::npos) << message << r.err;
    }
}

} // namespace
