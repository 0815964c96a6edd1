// SPDX-License-Identifier: MIT
#include "glue/diner/Diner_selector.h"
#include "support/Pty.h"
#include "support/Test_diner.h"
#include "support/test.h"
#include <QtGlobal>
#include <future>
#include <sys/resource.h>
#include <sys/syscall.h>

namespace {

using D = Diner;

TEST(Lifecycle, every_call_in_every_state) {
    // A state; result of start() and the state after the thread has gone on, the same of stop(), that of terminate()
    // without a free event.
    const int cases[][6] = {{3, -1, 3, -1, 3, 3}, {2, 0, 0, -1, 2, 5},  {0, -1, 0, 0, 2, 5},
                            {1, -1, 2, -1, 2, 5}, {4, -1, 5, -1, 5, 5}, {5, -1, 5, -1, 5, 5}};
    for (const auto& [state, start, started, stop, stopped, terminated] : cases) {
        for (int call = 0; call < 3; ++call) {
            const int results[] = {start, stop, 0}, then[] = {started, stopped, terminated};
            Test_diner<> d;
            if (state != D::state_uninit) d.begin(state == D::state_stop);
            if (state == D::state_stopping || state == D::state_term) d.lock_gate.shut(); // else it would move on
            if (state == D::state_stopping) d.stop();
            if (state >= D::state_term) d.terminate(state == D::state_gone);
            ASSERT_EQ(d.get_state(), state);
            std::string message = call == 0 && state == 3 ? "Task not created ANON_DNR\r\n" : "";
            const auto address = reinterpret_cast<unsigned long>(static_cast<Diner*>(&d));
            if (call == 2 && (state == 3 || state == 4))
                message = text_of("terminate %lx called from state %d\n", address, state);
            Capture err(stderr);
            const int result = call == 0 ? d.start() : call == 1 ? d.stop() : (Exhausted_pool(), d.terminate(false), 0);
            d.lock_gate.open();
            EXPECT_VALUES(texts(results[call], message, true, then[call] == 5), result, err.text(),
                          d.in_state(then[call]), d.terminated())
                << "call " << call << " in state " << state << " leads to " << d.get_state();
        }
    }
}

TEST(Lifecycle, hooks_waiter_checkpoints_and_timeouts_follow_start_and_stop_unless_it_cannot_stop) {
    const size_t descriptors = num_descriptors();
    Timeout far;
    Test_diner<> d;
    d.begin(true);
    const auto at = [&d](int line) { return wait_until([&] { return d.info.checkpoint_line == line; }); };
    d.on_start = [&d] {
        EXPECT_FALSE(d.is_locked()) << "it may take the lock";
        d.post(2);
    };
    for (int round = 1; round <= 2; ++round) {
        ASSERT_VALUES("0 true glue/diner/Diner false", d.start(), at(80), d.info.checkpoint_file.load(),
                      d.wait_stopped());
        d.post(1);
        ASSERT_TRUE(wait_until([&] { return d.events == 2 * round; }));
        d.submit_timeout(far, 100000);     // its wake-up is counted now, after the next start or not at all
        if (round == 2) d.waiter.deinit(); // by the application: it stops all the same
        ASSERT_VALUES("0 true true", d.stop(), d.wait_stopped(), at(110));
        d.waiter.send_event(waiter_event(2000, 3, 0)); // dropped
        EXPECT_VALUES(texts(round, round, 2 * round, false, false), d.starts, d.stops, d.events, d.waiter.accepting(),
                      far.in_tree() || far.diner);
    }
    EXPECT_VALUES(texts(true, descriptors), d.run(), num_descriptors()) << "there may be more diners than descriptors";
    d.waiter.set_enabled(false), d.on_start = nullptr;
    EXPECT_VALUES("-1 0 4 false", (Exhausted_pool(), d.stop()), d.get_state(), d.starts, d.waiter.accepting())
        << "without a free event its hook is undone, and nothing else is done";
    const uint32_t before = d.info.event_count;
    d.wake();
    EXPECT_TRUE(wait_until([&] { return d.info.event_count > before; })) << "it runs on";
    d.lock_gate.shut();
    EXPECT_VALUES("0 false", d.stop(), d.wait_stopped()) << "not for ever";
}

TEST(Lifecycle, a_start_looks_again_after_its_hook) {
    for (const std::string meanwhile : {"start", "run", "run and stop", "terminate"}) {
        SCOPED_TRACE(meanwhile);
        const bool ends = meanwhile == "terminate";
        Test_diner<> d;
        d.begin(), d.stop(), d.in_state(D::state_stop), d.get_state(); // now it waits
        d.on_start = [&, first = true]() mutable {                     // without the lock: so might any thread
            if (!std::exchange(first, false)) return;
            if (ends) return d.terminate(true);
            if (meanwhile == "start") d.lock_gate.shut(); // its thread does not take it yet
            EXPECT_TRUE(meanwhile == "start" ? d.start() == 0 : d.run());
            EXPECT_TRUE(wait_until([&d] { return d.start_tokens() == 0; })) << "it has woken";
            EXPECT_TRUE(meanwhile != "run and stop" || (d.stop() == 0 && d.in_state(D::state_stop)));
        };
        EXPECT_EQ(d.start(), ends ? -1 : 0);
        d.lock_gate.open();
        EXPECT_VALUES("true true", d.in_state(ends ? D::state_gone : D::state_run), d.waiter.accepting() != ends);
        EXPECT_TRUE(ends || (d.get_state() == D::state_run && d.start_tokens() == 0)) << "it would start once more";
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

/// Moves and choices, mostly before the threads have followed the last ones.
TEST(Selectors, agree_with_a_model_through_a_long_random_use) {
    std::deque<Test_diner<>> all; // in the order of a selector: by id, then name; two are equal
    for (const auto& [name, id] : {std::pair("low", INT_MIN), {"z", 1}, {"z", 1}, {"a", 2}, {"b", 2}, {"b", INT_MAX}})
        all.emplace_back(name, id).begin(true);
    auto selectors = std::make_unique<Diner_selector[]>(2);
    std::map<Diner*, Diner_selector*> where;
    std::map<Diner*, bool> selected; // in one or the other, and running unless it was stopped by hand
    std::mt19937 random(20260401);
    for (int step = 0; step < 3000; ++step) {
        SCOPED_TRACE(step);
        Diner_selector& s = selectors[random() % 2];
        Test_diner<>& d = all[random() % all.size()];
        std::vector<Test_diner<>*> in;
        Test_diner<>* like = nullptr;
        for (auto& x : all) {
            if (where[&x] != &s) continue;
            in.push_back(&x);
            if (x.own == d.own) like = &x;
        }
        const auto moved = [&](Diner_selector* to) { return selected.erase(&d), where[&d] = to, 0; };
        const auto chosen = [&](Test_diner<>* one) {
            if (!one || selected.count(one)) return one ? 0 : -1;
            for (auto* x : in) selected.erase(x);
            return selected[one] = true, 0;
        };
        const size_t i = random() % 7;
        const int call = int(random() % 8);
        using Results = std::pair<int, int>; // and what it should be
        const Results r = call == 0   ? Results{s.register_diner(&d), where[&d] || like ? -1 : moved(&s)}
                            : call == 1 ? Results{s.deregister_diner(&d), like == &d ? moved(nullptr) : -1}
                          : call == 2 ? Results{d.set_selector(nullptr), moved(nullptr)}
                          : call == 3 ? Results{d.set_selector(&s), like ? (like == &d) - 1 : moved(&s)}
                          : call == 4 ? Results{s.select_diner(d.own), chosen(like)}
                          : call == 5 ? Results{0, d.stop() == 0 && (selected[&d] = false)}
                                      : Results{s.select_diner(int(i)), chosen(i < in.size() ? in[i] : nullptr)};
        ASSERT_EQ(r.first, r.second) << call;
        for (auto* x : in) ASSERT_EQ(s.get_selected() == x, where[x] == &s && selected.count(x)) << x->own.name;
        const auto n = std::count_if(where.begin(), where.end(), [&s](auto& w) { return w.second == &s; });
        ASSERT_VALUES(texts(where[&d], n, nullptr, nullptr), d.get_selector(), s.num_diners(), s[-1], s[int(n)]);
        if (random() % 3) continue;
        D::Descriptor copies[6];
        s.get_descriptors(copies, int(i) - 1);
        for (int at = 0; at < 6; ++at)
            ASSERT_EQ(copies[at], at < n && at + 1 < int(i) ? s[at]->get_descriptor() : D::Descriptor("ANON_DNR", 0));
        for (auto& x : all) {
            const int runs = selected.count(&x) && selected[&x];
            ASSERT_VALUES(texts(true, runs), x.in_state(runs ? D::state_run : D::state_stop), x.starts - x.stops)
                << x.own.name;
        }
    }
    selectors.reset();
    for (auto& d : all) EXPECT_EQ(d.get_selector(), nullptr) << "who went first";
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
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {}); // it has a word of its own
    Test_diner<> d("idle");
    d.begin(true);
    _exit(d.start() == -1 ? 9 : 1); // a sanitizer would want a thread at an exit
}

TEST(Misuse, ends_the_process_with_its_message_and_status) {
    const auto handle = [](auto& d, auto act) {
        d.on_event = [=](waiter_event&) { act(); };
        d.begin(), d.post(1), pause(); // it may be destroyed under whoever looks at it
    };
    Diner_info_list::get();                // older than the static diner, which is destroyed first
    Test_diner<> d;                        // its thread starts in the child
    static Test_diner<Diner> without_lock; // with one: stress/diners
    const std::pair<std::function<void()>, const char*> cases[] = {
        // Parked its thread calls nothing of the subclass that goes.
        {[&] { d.begin(), d.stop(), d.in_state(D::state_stop), d.get_state(), d.Diner::~Diner(); },
         "signal 6 Need to call terminate() from top level destructor\n"},
        {[&] { handle(d, [&d] { d.terminate(false); }); }, "signal 6 No terminate, are we locked\n"},
        {[&] { d.begin(), d.lock_gate.shut(), d.terminate(true); },
         "signal 6 No terminate, did we call delete ourself\n"},
        {[&] { d.begin(), d.begin(); }, "117 Init called with valid task\n"},
        {[&] { be_refused(d); }, "152 Problem setting selector!\r\n  same (Stop)\n1"},
        {[&] { d.begin(), be_refused(d); }, "152 Problem setting selector!\r\n  same (Run)\n  same (Stop)\n2"},
        {[&] { handle(without_lock, [] { exit(8); }); }, "8 "},
        {get_no_thread, "9 Task is null  idle\r\nTask not created idle\r\n"},
    };
    for (const auto& [misuse, end] : cases) EXPECT_EQ(run_child(misuse).end(), end);
}

TEST(Diner, handles_events_under_its_lock_then_timeouts_and_bare_wake_ups_only_on_request) {
    for (bool pass : {false, true}) {
        Timeout due(Atime::from_now(-1));
        Test_diner<> d;
        d.on_event = [&](auto&) { EXPECT_VALUES("true true 1", d.is_locked(), d.on_own_thread(), d.info.activity); };
        d.on_timeout = [&](auto&) {
            EXPECT_VALUES(texts(true, 2, pass ? 7 : 3), d.is_locked(), d.info.activity, d.events);
        };
        d.begin(true, pass);
        d.submit_timeout(due);
        for (int i = 0; i < 2; ++i) d.wake();
        waiter_event like_one(module_man::EVENT_ANONYMOUS);
        like_one.data = 77; // the data word does not count
        d.waiter.send_event(like_one);
        for (int id : {1, 2, 3}) d.post(id);
        d.posted += 2;
        d.run();
        EXPECT_TRUE(d.idle() && wait_until([&] { return d.info.timeout_count == 1; }))
            << "what is not handled counts too";
        d.terminate(true);
        EXPECT_VALUES(texts(1, Diner_info::activity_idle), d.timeouts_handled, d.info.activity);
    }
}

/// Wake-ups are taken many at a time, by the diner or by its handler. Those that came before an event must not take its
/// delivery along, also when the handler has taken another one itself.
TEST(Diner, counts_each_of_many_wake_ups_and_handles_each_event_among_them) {
    struct Merging : Test_diner<> {
        void handle_event(waiter_event& e) override {
            handled += e.module_id == 2000;
            if (e.module_id == 2000) in_order = in_order && std::exchange(last, e.id) < e.id;
            if (e.module_id != 2000 && std::exchange(to_take, 0) > 0) {
                for (int id : {1, 2, 3}) post(id);
                waiter_event own;
                waiter.get_event(&own);
                handle_event(own);
                --posted; // the loop does not count it
            }
            merge_wake_ups(e);
        }
        int to_take = 0, last = 0;
        std::atomic<int> handled{0};
        std::atomic<bool> in_order{true};
    };
    for (int taken : {0, 3}) {
        Merging d;
        d.to_take = taken;
        d.begin(false, taken);
        d.wake();
        EXPECT_VALUES(texts(true, taken), d.idle(), d.handled);
        std::thread waker([&d] {
            for (int i = 0; i < 20000; ++i) d.wake();
        });
        int events = 0;
        for (int i = 4; i < 20004; ++i) events += d.waiter.send_event({2000, i, 0}) == 0;
        waker.join();
        d.posted += events;
        EXPECT_TRUE(d.idle()) << d.info.event_count << " of " << d.posted;
        EXPECT_VALUES(texts(events + taken, true), d.handled, d.in_order);
        d.terminate(true);
    }
}

TEST(Diner, prints_and_flushes_what_its_debug_level_asks_for) {
    // What is printed of an event and of a timeout: - nothing, p it, f it and flushes.
    const std::map<unsigned char, std::string> outputs = {{0, "--"},   {10, "p-"},  {11, "-p"},  {12, "--"},
                                                          {50, "--"},  {51, "p-"},  {52, "pp"},  {100, "fp"},
                                                          {101, "pf"}, {150, "pp"}, {151, "fp"}, {152, "ff"}};
    for (const auto& [level, wanted] : outputs) {
        Timeout t;
        Test_diner<> running("dbg"), parked("dbg");
        for (auto* d : {&running, &parked}) d->info.set_debug_level(level), d->begin(d == &parked);
        bool flushed[2];
        const std::string lines[] = {"Evt{dbg,2000,5}\n", text_of("Tim{dbg,%p}\n", &t)},
                          got[] = {
                              debug_text([&] { running.post(5), running.idle(), running.get_state(); }, &flushed[0]),
                              debug_text([&] { parked.submit_timeout(t, 0), parked.handle_timeout(); }, &flushed[1])};
        for (int i : {0, 1})
            EXPECT_VALUES(texts(wanted[i] == '-' ? "" : lines[i], wanted[i] == 'f'), got[i], flushed[i]) << int(level);
    }
}

TEST(Diner, lock_waits_as_long_as_it_can_when_that_is_not_long_enough) {
    Test_diner<> d;
    for (int ticks : {INT_MAX / 10, INT_MAX / 10 + 1, INT_MAX}) {
        d.lock(-1);
        auto other = std::async(std::launch::async, [&] { return d.lock(ticks) && (d.unlock(), true); });
        EXPECT_EQ(other.wait_for(std::chrono::milliseconds(30)), std::future_status::timeout) << ticks;
        d.unlock();
        EXPECT_TRUE(other.get()) << ticks;
    }
}

TEST(Diner, allocates_nothing_for_events_and_timeouts) {
    Timeout t;
    Test_diner<> d;
    d.begin();
    for (const bool warm : {false, true}) {
        const long before = allocations();
        for (int i = 0; i < 50; ++i) d.post(i);
        ++d.posted; // the wake-up for the timeout
        d.submit_timeout(t, 0);
        EXPECT_TRUE(wait_until([&] { return d.info.timeout_count == 1u + warm; }) && d.idle());
        EXPECT_TRUE(!warm || allocations() == before) << allocations() - before;
    }
}

} // namespace
