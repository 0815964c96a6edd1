// SPDX-License-Identifier: MIT
#include "glue/diner/Diner_selector.h"
#include "support/Pty.h"
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
            const int results[] = {start, stop, 0}, then[] = {started, stopped, terminated};
            Test_diner<> d;
            bring(d, D::State(state));
            std::string message = call == 0 && state == 3 ? "Task not created ANON_DNR\r\n" : "";
            const auto address = reinterpret_cast<unsigned long>(static_cast<Diner*>(&d));
            if (call == 2 && (state == 3 || state == 4))
                message = text_of("terminate %lx called from state %d\n", address, state);
            Capture err(stderr);
            const int result = call == 0 ? d.start() : call == 1 ? d.stop() : (d.terminate(false), 0);
            d.lock_gate.open();
            EXPECT_VALUES(texts(results[call], message, true, then[call] == 5), result, err.text(),
                          d.in_state(then[call]), d.terminated())
                << "call " << call << " in state " << state << " leads to " << d.get_state();
        }
    }
}

TEST(Lifecycle, hooks_waiter_and_checkpoints_follow_start_and_stop) {
    const size_t descriptors = num_descriptors();
    Test_diner<> d;
    d.begin(true);
    const auto at = [&d](int line) { return wait_until([&] { return d.info.checkpoint_line == line; }); };
    d.on_start = [&d] {
        EXPECT_FALSE(d.is_locked()) << "it may take the lock";
        d.post(2);
    };
    for (int round = 1; round <= 20; ++round) {
        ASSERT_VALUES("0 true glue/diner/Diner", d.start(), at(80), d.info.checkpoint_file.load());
        EXPECT_FALSE(d.wait_stopped()) << "nobody stops it";
        d.post(1);
        ASSERT_TRUE(d.idle());
        if (round == 20) d.waiter.deinit(); // by the application: it stops all the same
        ASSERT_VALUES("0 true true", d.stop(), d.wait_stopped(), at(110));
        d.waiter.send_event(waiter_event(2000, 3, 0)); // dropped
        EXPECT_VALUES(texts(round, round, 2 * round, false), d.starts, d.stops, d.events, d.waiter.accepting());
    }
    EXPECT_VALUES(texts(true, descriptors), d.run(), num_descriptors()) << "there may be more diners than descriptors";
    d.lock_gate.shut();
    EXPECT_VALUES("0 false", d.stop(), d.wait_stopped()) << "not for ever";
}

TEST(Lifecycle, without_a_free_event_a_diner_does_not_stop_but_terminates) {
    Test_diner<> d;
    d.begin();
    d.waiter.set_enabled(false);
    std::vector<waiter_event_node*> all;
    while (waiter_event_node* n = Diner_info_list::get().get_blank_event()) all.push_back(n);
    EXPECT_VALUES(texts(-1, D::state_run), d.stop(), d.get_state());
    EXPECT_VALUES("2 false", d.starts, d.waiter.accepting()) << "the stop hook is undone, and nothing else is done";
    d.wake();
    EXPECT_TRUE(d.idle()) << "it runs on";
    d.terminate(true);
    for (waiter_event_node* n : all) Diner_info_list::get().return_used_event(n);
}

TEST(Start_race, a_second_start_before_the_first_is_taken_leaves_no_token_behind) {
    Test_diner<> d;
    d.begin();
    ASSERT_VALUES("0 true", d.stop(), d.in_state(D::state_stop)); // its thread takes the lock again once it wakes
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

TEST(Lifecycle, without_a_lock_a_diner_may_be_destroyed_the_moment_that_terminate_returns) {
    for (int i = 0; i < 200; ++i) {
        Test_diner<Diner> d;
        if (i % 4) d.begin(i % 2);
        if (i % 4 == 1) d.post(i);
    }
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

/// Diners in the order of a selector: by id, then name; two are equal.
struct Selected : testing::Test {
    Selected() {
        for (auto& s : selectors) s.emplace();
        for (const auto& [name, id] :
             {std::pair("low", INT_MIN), {"z", 1}, {"z", 1}, {"a", 2}, {"b", 2}, {"high", INT_MAX}})
            all.emplace_back(name, id).begin(true);
    }
    /// Those that should be in a selector.
    std::vector<Test_diner<>*> in(const Diner_selector& s) {
        std::vector<Test_diner<>*> those;
        for (auto& d : all)
            if (where[&d] == &s) those.push_back(&d);
        return those;
    }
    int moved(Test_diner<>& d, Diner_selector* to) {
        if (where[&d]) selected.erase(&d);
        where[&d] = to;
        return 0;
    }
    int chosen(const Diner_selector& s, Test_diner<>* d) {
        if (!d) return -1;
        if (selected.count(d)) return 0;
        for (auto* x : in(s)) selected.erase(x);
        selected[d] = true;
        return 0;
    }
    std::deque<Test_diner<>> all;
    std::optional<Diner_selector> selectors[2];
    std::map<Diner*, Diner_selector*> where;
    std::map<Diner*, bool> selected; ///< in one or the other, and running unless it was stopped by hand
};

/// Moves and choices, mostly before the threads have followed the last ones.
TEST_F(Selected, agree_with_a_model_through_a_long_random_use) {
    std::mt19937 random(20260401);
    for (int step = 0; step < 3000; ++step) {
        SCOPED_TRACE(step);
        Diner_selector& s = *selectors[random() % 2];
        Test_diner<>& d = all[random() % all.size()];
        const std::vector<Test_diner<>*> here = in(s);
        const auto found = std::find_if(here.begin(), here.end(), [&d](auto* x) { return x->own == d.own; });
        Test_diner<>* const like = found == here.end() ? nullptr : *found;
        const size_t i = random() % 7;
        const int call = int(random() % 8);
        using Results = std::pair<int, int>; // and what it should be
        const Results r = call == 0   ? Results{s.register_diner(&d), where[&d] || like ? -1 : moved(d, &s)}
                            : call == 1 ? Results{s.deregister_diner(&d), like == &d ? moved(d, nullptr) : -1}
                          : call == 2 ? Results{d.set_selector(nullptr), moved(d, nullptr)}
                          : call == 3 ? Results{d.set_selector(&s), like ? (like == &d) - 1 : moved(d, &s)}
                          : call == 4 ? Results{s.select_diner(d.own), chosen(s, like)}
                          : call == 5 ? Results{0, d.stop() == 0 && (selected[&d] = false)}
                                      : Results{s.select_diner(int(i)), chosen(s, i < here.size() ? here[i] : nullptr)};
        ASSERT_EQ(r.first, r.second) << call;
        ASSERT_VALUES(texts(where[&d], in(s).size(), nullptr, nullptr), d.get_selector(), s.num_diners(), s[-1],
                      s[s.num_diners()]);
        for (auto* x : in(s)) ASSERT_EQ(s.get_selected() == x, selected.count(x)) << x->own.name;
        if (random() % 3) continue;
        for (auto& x : all) {
            const int runs = selected.count(&x) && selected[&x];
            ASSERT_VALUES(texts(true, runs), x.in_state(runs ? D::state_run : D::state_stop), x.starts - x.stops)
                << x.own.name;
        }
    }
    for (auto& s : selectors) s.reset();
    for (auto& d : all) EXPECT_EQ(d.get_selector(), nullptr) << "who went first";
}

TEST_F(Selected, are_copied_in_order) {
    for (auto& d : all) d.set_selector(&*selectors[0]);
    for (const auto& [max, copied] : {std::pair(-1, ""), {0, ""}, {2, "low z "}, {6, "low z a b high "}}) {
        Diner::Descriptor out[6];
        selectors[0]->get_descriptors(out, max);
        std::string names;
        for (const auto& o : out) names += o == Diner::DESCRIPTOR_DEFAULT ? "" : o.name + std::string(" ");
        EXPECT_EQ(names, copied) << max;
    }
}

/// With a diner that is younger than the list, so it is destroyed before it. Those with a lock see stress/diners.
void exit_in_handler() {
    Diner_info_list::get();
    static Test_diner<Diner> without_lock;
    without_lock.on_event = [](waiter_event&) { exit(8); };
    without_lock.begin();
    without_lock.post(1);
    pause(); // it is destroyed under whoever looks at it
}

void be_refused(Diner& d) {
    Diner_info_list::get();
    static Diner_selector selector;
    static Test_diner<> first("same", 1);
    first.begin(true, false, &selector);
    atexit([] { fprintf(stderr, "%d", Diner_info_list::get().print_alive()); });
    d.init(Diner_info_list::get(), &selector, first.own, 0, 0, false, false);
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

TEST(Misuse, ends_the_process_with_its_message_and_status) {
    Test_diner<> d; // its thread starts in the child
    const std::tuple<std::function<void()>, int, const char*> cases[] = {
        // status -1: aborted
        // Parked its thread calls nothing of the subclass that goes.
        {[&] { d.begin(), d.stop(), d.in_state(D::state_stop), d.get_state(), d.Diner::~Diner(); }, -1,
         "Need to call terminate() from top level destructor\n"},
        {[&] {
             d.on_event = [&d](waiter_event&) { d.terminate(false); };
             d.begin(), d.post(1), pause();
         },
         -1, "No terminate, are we locked\n"},
        {[&] { d.begin(), d.lock_gate.shut(), d.terminate(true); }, -1, "No terminate, did we call delete ourself\n"},
        {[&] { d.begin(), d.begin(); }, 117, "Init called with valid task\n"},
        {[&] { be_refused(d); }, 152, "Problem setting selector!\r\n  same (Stop)\n1"},
        {[&] { d.begin(), be_refused(d); }, 152, "Problem setting selector!\r\n"},
        {exit_in_handler, 8, ""},
        {get_no_thread, 9, "Task is null  idle\r\nTask not created idle\r\n"},
    };
    for (const auto& [misuse, status, message] : cases) {
        const Child_result r = run_child(misuse);
        EXPECT_VALUES(texts(status, status < 0 ? SIGABRT : 0), r.status, r.signal) << message << r.end();
        EXPECT_TRUE(*message ? r.err.find(message) < r.err.size() : r.err.empty()) << message << r.err;
    }
}

} // namespace
