// SPDX-License-Identifier: MIT
#include "glue/diner/Diner_selector.h"
#include "support/Test_diner.h"
#include "support/test.h"
#include <sys/resource.h>
#include <sys/syscall.h>

namespace {

using D = Diner;

/// Bring a diner into a state; its thread is held there by the gate where it would move on by itself.
void bring(Test_diner<>& d, D::State s) {
    if (s == D::state_uninit) return;
    d.begin(s == D::state_stop);
    if (s == D::state_stopping || s == D::state_term) d.lock_gate.shut();
    if (s == D::state_stopping) d.stop();
    if (s == D::state_term) d.terminate(false);
    if (s == D::state_gone) d.terminate(true);
    ASSERT_EQ(d.get_state(), s);
}

TEST(Lifecycle, every_call_in_every_state) {
    // A state; result of start() and the state after the thread has gone on, the same of stop(), that of terminate().
    const int cases[][6] = {{3, -1, 3, -1, 3, 3}, {2, 0, 0, -1, 2, 5},  {0, -1, 0, 0, 2, 5},
                            {1, -1, 2, -1, 2, 5}, {4, -1, 5, -1, 5, 5}, {5, -1, 5, -1, 5, 5}};
    for (const auto& [state, start, started, stop, stopped, terminated] : cases) {
        for (int call = 0; call < 3; ++call) {
            SCOPED_TRACE(std::to_string(state) + " " + std::to_string(call));
            const int results[] = {start, stop, 0}, then[] = {started, stopped, terminated};
            Test_diner<> d;
            bring(d, D::State(state));
            std::string message = call == 0 && state == 3 ? "Task not created ANON_DNR\r\n" : "";
            if (call == 2 && (state == 3 || state == 4)) {
                const auto address = reinterpret_cast<unsigned long>(static_cast<Diner*>(&d));
                message = text_of("terminate %lx called from state %d\n", address, state);
            }
            Capture err(stderr);
            EXPECT_EQ(call == 0 ? d.start() : call == 1 ? d.stop() : (d.terminate(false), 0), results[call]);
            d.lock_gate.open();
            EXPECT_EQ(err.text(), message);
            EXPECT_VALUES(texts(true, then[call] == 5), d.in_state(then[call]), d.terminated()) << d.get_state();
        }
    }
}

TEST(Lifecycle, hooks_waiter_and_checkpoints_follow_start_and_stop) {
    Test_diner<> d;
    d.begin(true);
    const auto at = [&d](int line) { return wait_until([&] { return d.info.checkpoint_line == line; }); };
    d.on_start = [&d] { EXPECT_FALSE(d.is_locked()) << "it may take the lock"; };
    for (int round = 1; round <= 2; ++round) {
        ASSERT_VALUES("0 true", d.start(), at(80));
        EXPECT_STREQ(d.info.checkpoint_file.load(), "glue/diner/Diner");
        d.post(1);
        ASSERT_TRUE(d.idle());
        if (round == 2) d.waiter.deinit(); // by the application: it stops all the same
        ASSERT_VALUES("0 true true", d.stop(), d.in_state(D::state_stop), at(110));
        EXPECT_VALUES(texts(round, round, round), d.starts, d.stops, d.events);
        EXPECT_FALSE(d.waiter.accepting());
    }
    ASSERT_TRUE(d.run());
    d.waiter.set_enabled(false);
    d.terminate(true);
}

TEST(Lifecycle, a_diner_parks_after_what_was_queued_before_and_without_a_free_event_only_terminates) {
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
    EXPECT_VALUES("true 0", busy.reached(), d.stop());
    busy.open();
    EXPECT_VALUES("true 5", d.in_state(D::state_stop), d.events);

    ASSERT_TRUE(d.run());
    d.waiter.set_enabled(false);
    std::vector<waiter_event_node*> all;
    while (waiter_event_node* n = Diner_info_list::get().get_blank_event()) all.push_back(n);
    EXPECT_VALUES(texts(-1, D::state_run), d.stop(), d.get_state());
    EXPECT_VALUES("3 false", d.starts, d.waiter.accepting()) << "the stop hook is undone, and nothing else is done";
    d.wake();
    EXPECT_TRUE(d.idle()) << "it runs on";
    d.terminate(true);
    for (waiter_event_node* n : all) Diner_info_list::get().return_used_event(n);
}

TEST(Lifecycle, a_stopped_diner_is_waited_for_and_started_with_what_its_hook_posts) {
    Test_diner<> d;
    EXPECT_FALSE(d.wait_stopped());
    d.begin();
    d.on_start = [&d] { d.post(2); };
    for (int round = 1; round <= 20; ++round) {
        EXPECT_FALSE(d.wait_stopped()) << "nobody stops it";
        d.post(1);
        ASSERT_VALUES("0 true", d.stop(), d.wait_stopped());
        d.waiter.send_event(waiter_event(2000, 3, 0)); // dropped
        ASSERT_EQ(d.start(), 0);
        ASSERT_VALUES(texts(true, true, 2 * round), d.in_state(D::state_run), d.idle(), d.events);
    }
    d.lock_gate.shut();
    EXPECT_VALUES("0 false", d.stop(), d.wait_stopped()) << "not for ever";
}

TEST(Lifecycle, two_threads_may_end_the_same_diner) {
    Capture err(stderr);
    Test_diner<> d;
    d.begin();
    d.lock_gate.shut();
    d.terminate(false);
    std::atomic<bool> returned{false};
    std::thread other([&] { d.terminate(true), returned = true; });
    EXPECT_FALSE(wait_until([&] { return returned.load(); }, std::chrono::milliseconds(50))) << "it waits, too";
    d.lock_gate.open();
    other.join();
    EXPECT_VALUES("true true", d.terminated(), err.text().empty());
}

TEST(Start_race, a_second_start_before_the_first_is_taken_leaves_no_token_behind) {
    Test_diner<> d;
    d.begin();
    ASSERT_VALUES("0 true", d.stop(),
                  d.in_state(D::state_stop)); // by its thread, which takes the lock again once it wakes
    d.lock_gate.shut();
    EXPECT_EQ(d.start(), 0);
    ASSERT_TRUE(d.lock_gate.reached()); // awake, and not yet running
    EXPECT_EQ(d.start(), 0);
    d.lock_gate.open();
    ASSERT_TRUE(d.in_state(D::state_run));
    EXPECT_EQ(d.get_state(), D::state_run); // by the lock: its thread waits for events now
    EXPECT_EQ(d.start_tokens(), 0) << "it would revive the diner after the next stop";
}

TEST(Start_race, a_start_looks_again_after_its_hook) {
    for (const std::string meanwhile : {"run", "run and stop", "terminate"}) {
        SCOPED_TRACE(meanwhile);
        const bool ends = meanwhile == "terminate";
        Test_diner<> d;
        d.begin(true);
        Gate hook;
        hook.shut();
        d.on_start = [&hook] { hook.pass(); };
        std::thread starter([&] { EXPECT_EQ(d.start(), ends ? -1 : 0); });
        EXPECT_TRUE(hook.reached());
        d.on_start = nullptr;
        if (ends) d.terminate(true);
        EXPECT_EQ(d.run(), !ends);
        EXPECT_TRUE(meanwhile != "run and stop" || (d.stop() == 0 && d.in_state(D::state_stop)));
        hook.open();
        starter.join();
        EXPECT_VALUES("true true", d.in_state(ends ? D::state_gone : D::state_run), d.waiter.accepting() != ends);
        EXPECT_TRUE(ends || (d.get_state() == D::state_run && d.start_tokens() == 0));
    }
}

TEST(Lifecycle, diners_may_be_destroyed_the_moment_that_terminate_returns) {
    const auto come_and_go = [](auto&& d, int i) {
        if (i % 4) d.begin(i % 2);
        if (i % 4 == 1) d.post(i);
    };
    for (int i = 0; i < 100; ++i) {
        come_and_go(Test_diner<>(), i);
        come_and_go(Test_diner<Diner>(), i);
    }
    EXPECT_EQ(Diner_info_list::get().print_alive(), 0);
    EXPECT_EQ(Diner_info_list::get().num_free_events(), module_man::pool_size);
}

/// Its thread is slow on its last step.
struct Slow_leaver : Test_diner<> {
    ~Slow_leaver() override {
        if (state == state_term) _exit(1);
    }
    bool lock(int timeout) const override {
        if (on_own_thread() && state == state_term && ++locks == 2) usleep(300000);
        return Test_diner<>::lock(timeout);
    }
    mutable std::atomic<int> locks{0};
} slow_leaver; // older than the status list

TEST(Lifecycle, diners_older_than_the_list_are_ended_by_it) {
    EXPECT_EQ(run_child([] { slow_leaver.begin(); }).end(), "0 ");
}

struct Idle : Diner_external_protection<Diner> {
    using Diner_external_protection<Diner>::Diner_external_protection;
    using Diner::handle_timeout;
    void handle_event(waiter_event&) override {}
    void handle_timeout(Timeout&) override {}
};

TEST(Lifecycle, two_diners_may_share_a_lock) {
    Mutex mutex;
    Idle a(mutex), b(mutex);
    EXPECT_VALUES("true true", a.lock(-1), b.is_locked());
    std::thread([&b] { EXPECT_VALUES("false false", b.is_locked(), b.lock(1)); }).join();
    b.unlock();
    EXPECT_EQ(mutex.status(), Mutex::status_free);
}

class Selector : public testing::Test {
protected:
    Selector() {
        for (auto* d : {&b2, &a2, &z1}) d->begin(true, false, &selector);
    }
    std::string order() {
        std::string names;
        for (int i = -1; i <= selector.num_diners(); ++i) {
            if (const Diner* d = selector[i]) names += d->get_descriptor().name + std::string(" ");
        }
        return names;
    }
    Diner_selector selector;
    Test_diner<> b2{"b", 2}, a2{"a", 2}, z1{"z", 1};
};

TEST_F(Selector, runs_one_at_a_time_of_its_diners_by_id_then_name) {
    EXPECT_EQ(order(), "z a b ");
    // An index or a name and id; the result, who is selected then, starts and stops of all three so far.
    const std::tuple<int, const char*, int, int, Test_diner<>*, int, int> steps[] = {
        {-1, nullptr, 0, -1, nullptr, 0, 0}, {0, nullptr, 0, 0, &z1, 1, 0}, {-1, "z", 1, 0, &z1, 1, 0},
        {3, nullptr, 0, -1, &z1, 1, 0},      {-1, "z", 2, -1, &z1, 1, 0},   {-1, "b", 2, 0, &b2, 2, 1},
        {1, nullptr, 0, 0, &a2, 3, 2}};
    for (const auto& [index, name, id, result, selected, starts, stops] : steps) {
        EXPECT_EQ(name ? selector.select_diner(Diner::Descriptor(name, id)) : selector.select_diner(index), result);
        EXPECT_VALUES(texts(selected, true), selector.get_selected(),
                      (!selected || selected->in_state(Diner::state_run)));
        EXPECT_VALUES(texts(starts, stops), z1.starts + a2.starts + b2.starts, z1.stops + a2.stops + b2.stops) << index;
    }
    EXPECT_VALUES("true true", z1.in_state(Diner::state_stop), b2.in_state(Diner::state_stop));
}

TEST_F(Selector, never_leaves_two_running) {
    Diner_selector second;
    Test_diner<> twin("z", 1);
    twin.begin(true, false, &second);
    ASSERT_VALUES("0 true", selector.select_diner(0), z1.in_state(D::state_run));
    EXPECT_VALUES("0 -1", z1.set_selector(&selector), z1.set_selector(&second));
    EXPECT_VALUES(texts(&z1, 0), selector.get_selected(), z1.stops) << "it has stayed";
    // It leaves while it runs: by a move, and out of the set. The next one is selected.
    ASSERT_VALUES("0 true 0", selector.select_diner(1), a2.in_state(D::state_run), a2.set_selector(&second));
    EXPECT_VALUES("null null true", selector.get_selected(), second.get_selected(), a2.in_state(D::state_stop));
    ASSERT_VALUES("0 true 0", second.select_diner(1), a2.in_state(D::state_run), second.deregister_diner(&a2));
    EXPECT_VALUES("null null true", second.get_selected(), a2.get_selector(), a2.in_state(D::state_stop));
    // Two choices before the thread of the first has woken.
    EXPECT_TRUE(z1.in_state(D::state_stop)); // before the gate is shut, which its thread passes on the way there
    z1.lock_gate.shut();
    EXPECT_VALUES("0 true", selector.select_diner(0), z1.lock_gate.reached());
    EXPECT_EQ(selector.select_diner(1), 0);
    z1.lock_gate.open();
    EXPECT_VALUES("true 0", b2.in_state(D::state_run), z1.starts - z1.stops);
    EXPECT_EQ(z1.start(), 0) << "it was parked";
    EXPECT_TRUE(z1.in_state(D::state_run));
    // Chosen again while it still parks.
    for (int i = 0; i < 20; ++i) {
        ASSERT_VALUES("0 0", selector.select_diner(1), selector.select_diner(0));
        ASSERT_TRUE(z1.in_state(D::state_run)) << i;
    }
}

TEST_F(Selector, copies_the_first_descriptors_in_order) {
    Test_diner<> low("low", INT_MIN), high("high", INT_MAX); // farther apart than an int can tell
    low.begin(true, false, &selector);
    high.begin(true, false, &selector);
    EXPECT_EQ(order(), "low z a b high ");
    for (const auto& [max, copied] : {std::pair(-1, 0), {0, 0}, {2, 2}, {6, 5}}) {
        Diner::Descriptor out[6];
        selector.get_descriptors(out, max);
        for (int i = 0; i < 6; ++i) EXPECT_EQ(out[i] == Diner::DESCRIPTOR_DEFAULT, i >= copied) << max << i;
        EXPECT_EQ(out[std::max(copied - 1, 0)], copied ? selector[copied - 1]->get_descriptor() : out[5]);
    }
}

TEST_F(Selector, refuses_an_equal_descriptor_and_a_second_registration_and_may_go_first) {
    Test_diner<> twin("a", 2);
    {
        Diner_selector first;
        twin.begin(true, false, &first);
        EXPECT_VALUES("-1 -1", selector.register_diner(&a2), selector.deregister_diner(&twin));
        EXPECT_EQ(twin.set_selector(&selector), -1);
        EXPECT_VALUES(texts(&first, 1), twin.get_selector(), first.num_diners()) << "it is back where it was";
    }
    EXPECT_EQ(twin.get_selector(), nullptr);
    EXPECT_VALUES("0 0", a2.set_selector(nullptr), twin.set_selector(&selector));
    EXPECT_EQ(order(), "z a b ");
}

/// Older than the status list, so they are destroyed after it.
Test_diner<> global_diner;
Test_diner<Diner> global_diner_without_lock;

/// `handler` runs on the diner's thread and ends the process.
template <class D>
void handle_last(D& d, std::function<void()> handler) {
    d.on_event = [=](waiter_event&) { handler(); };
    d.begin();
    d.post(1);
    alarm(60); // when it does not
    pause();   // an exit destroys `d` under whoever looks at it
}

/// Younger than the list, so they are destroyed before it.
template <class D>
void exit_in_handler() {
    Diner_info_list::get();
    static D late;
    handle_last(late, [] { exit(8); });
}

void be_refused(Diner& d) {
    Diner_info_list::get();
    static Diner_selector selector;
    static Test_diner<> first("same", 1);
    first.begin(true, false, &selector);
    atexit([] { fprintf(stderr, "%d", Diner_info_list::get().print_alive()); });
    d.init(Diner_info_list::get(), &selector, first.own, 0, 0, false, false);
}

void destroy_without_terminate() {
    Mutex mutex;
    Idle d(mutex);
    d.init(Diner_info_list::get(), nullptr, Diner::DESCRIPTOR_DEFAULT, 0, 0, false, true);
    d.start();
    wait_until([&d] { return d.get_state() == D::state_run; });
    d.stop(); // parked its thread calls nothing of the subclass that goes
    wait_until([&d] { return d.get_state() == D::state_stop; });
}
void get_no_thread() {
    // Only an ordinary user has a limit. The plain system call touches this thread alone.
    if (getuid() == 0 && syscall(SYS_setuid, 65534) != 0) _exit(2);
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_NPROC, &none);
    Test_diner<> d("idle");
    d.begin(true);
    _exit(d.start() == -1 ? 9 : 1); // a sanitizer would want a thread at an exit
}

/// More of them than there are descriptors.
void be_many() {
    const rlimit few = {20, 20};
    setrlimit(RLIMIT_NOFILE, &few);
    std::vector<std::unique_ptr<Test_diner<>>> all;
    for (int i = 0; i < 40; ++i) {
        all.push_back(std::make_unique<Test_diner<>>("many", i));
        all.back()->begin();
        all.back()->post(i);
        if (!all.back()->idle()) _exit(1);
    }
}

TEST(Lifecycle, diners_take_no_descriptor) { EXPECT_EQ(run_child(be_many).end(), "0 "); }

TEST(Misuse, ends_the_process_with_its_message_and_status) {
    Test_diner<> d; // its thread starts in the child
    const std::tuple<std::function<void()>, int, const char*> cases[] = {
        // status -1: aborted
        {destroy_without_terminate, -1, "Need to call terminate() from top level destructor\n"},
        {[&] { handle_last(d, [&d] { d.terminate(false); }); }, -1, "No terminate, are we locked\n"},
        {[&] { d.begin(), d.lock_gate.shut(), d.terminate(true); }, -1, "No terminate, did we call delete ourself\n"},
        {[&] { d.begin(), d.begin(); }, 117, "Init called with valid task\n"},
        {[&] { be_refused(d); }, 152, "Problem setting selector!\r\n  same (Stop)\n1"},
        {[&] { d.begin(), be_refused(d); }, 152, "Problem setting selector!\r\n"},
        {[] { handle_last(global_diner, [] { exit(8); }); }, 8, ""},
        {[] { handle_last(global_diner_without_lock, [] { exit(8); }); }, 8, ""},
        {exit_in_handler<Test_diner<>>, 8, ""},
        {exit_in_handler<Test_diner<Diner>>, 8, ""},
        {get_no_thread, 9, "Task is null  idle\r\nTask not created idle\r\n"},
    };
    for (const auto& [misuse, status, message] : cases) {
        const Child_result r = run_child(misuse);
        EXPECT_VALUES(texts(status, status < 0 ? SIGABRT : 0), r.status, r.signal)
            << r.signal << " " << r.status << message << r.err;
        EXPECT_TRUE(*message ? r.err.find(message) < r.err.size() : r.err.empty()) << message << r.err;
    }
}

} // namespace
