// SPDX-License-Identifier: MIT
// Diners end in every way at random moments: by several threads at once, while others post, start and stop them, and by
// exits of the process from main, from a handler and from another thread, also when all events are in use. No handler
// runs after terminate(true), nothing is left in the list or missing in the pool, the status is that of the exit, and
// no line is printed. With --nightly thirty times as long.
#include "glue/diner/Diner_selector.h"
#include "support/Test_diner.h"
#include "support/test.h"
#include <regex>

namespace {

const unsigned seeds = nightly() ? 30 : 1;

/// A number below n: one after the other from a seed.
struct Random {
    explicit Random(unsigned seed) : _engine(seed) {}
    unsigned operator()(unsigned n) { return _engine() % n; }
    void pause() { // none, a turn or some ten microseconds
        const unsigned kind = (*this)(4);
        for (volatile unsigned i = kind ? (*this)(5000) : 0; i > 0; i = i - 1) {
        }
        if (kind == 1) std::this_thread::yield();
    }
    std::mt19937 _engine;
};

/// Shares its lock with others of its kind, which threads that are no diners use as well.
struct Borrower : Diner_external_protection<Diner> {
    explicit Borrower(Mutex& m) : Diner_external_protection<Diner>(m) {}
    ~Borrower() override {
        if (state != state_uninit) terminate(true);
        if (!terminated() && state != state_uninit) _exit(98); // the thread outlives its diner
        _alive = false;
    }
    void begin(bool, int id = 0, Diner_selector* s = nullptr) { // parked
        init(Diner_info_list::get(), s, Descriptor("borrower", id), 0, 0, false, false);
    }
    using Diner::handle_timeout;
    void handle_event(waiter_event& e) override {
        if (!_alive) _exit(97);
        if (on_event) on_event(e);
    }
    void handle_timeout(Timeout&) override {
        if (!_alive) _exit(96);
    }
    std::function<void(waiter_event&)> on_event;

private:
    std::atomic<bool> _alive{true};
};

/// Without the lines of locks that came late, as they may on a busy machine; one that never comes ends the process.
std::string but_late_locks(const std::string& text) {
    return std::regex_replace(text, std::regex("Deadlock (assumed|avoided) .*\n"), "");
}

/// One call, by chance, of what others may do to a diner at any time.
void meddle(Diner& d, Random& random, Diner_selector& selector, Timeout& timeout) {
    switch (random(10)) {
    case 0:
        d.start();
        break;
    case 1:
        d.stop();
        break;
    case 2:
        d.wait_stopped();
        break;
    case 3:
        d.waiter.set_enabled(random(2));
        break;
    case 4:
        d.submit_timeout(timeout, static_cast<int>(random(3)));
        break;
    case 5:
        selector.select_diner(static_cast<int>(random(3)));
        break;
    case 6:
        d.get_state();
        break;
    default:
        d.waiter.send_event(waiter_event(2000, 1, 0), random(2), random(2));
    }
}

TEST(Diner_ends, of_diners_that_several_threads_end_while_others_use_them) {
    Capture err(stderr);
    for (unsigned seed = 1; seed <= 150 * seeds && !HasFailure(); ++seed) {
        SCOPED_TRACE(seed);
        alarm(60); // kills what hangs
        Mutex shared;
        Diner_selector selector;
        Timeout timeouts[3];
        std::unique_ptr<Borrower> d[3];
        std::vector<std::thread> threads;
        std::atomic<int> late{0};
        for (int i = 0; i < 3; ++i) {
            d[i] = std::make_unique<Borrower>(shared);
            d[i]->begin(true, i, &selector);
            for (int user = 0; user < 2; ++user) {
                threads.emplace_back([&, i, user] {
                    Random random(seed * 100 + static_cast<unsigned>(10 * i + user));
                    for (unsigned n = random(100); n > 0; --n) {
                        meddle(*d[i], random, selector, timeouts[i]);
                        random.pause();
                    }
                    d[i]->terminate(user || random(2));
                    if (!user) d[i]->wait_terminate();
                    late += !d[i]->terminated();
                });
            }
        }
        for (auto& t : threads) t.join();
        EXPECT_EQ(late, 0);
        for (auto& x : d) x.reset();
        EXPECT_EQ(Diner_info_list::get().print_alive(), 0);
        EXPECT_EQ(Diner_info_list::get().num_free_events(), module_man::pool_size);
    }
    alarm(0);
    EXPECT_EQ(but_late_locks(err.text()), "");
}

Mutex& lock_of_all = *new Mutex; // used to the very end
Borrower old[2] = {Borrower(lock_of_all), Borrower(lock_of_all)};

/// Diners of every age run, some threads use their lock, one ends diners of its own, and after some events one way to
/// exit is taken.
void run_and_exit(unsigned seed) {
    Random random(seed);
    Diner_info_list::get();
    static Borrower young[2] = {Borrower(lock_of_all), Borrower(lock_of_all)};
    static Test_diner<> alone; // with a lock of its own
    static Borrower* own[4];
    for (auto& x : own) x = new Borrower(lock_of_all);
    Borrower* const all[] = {&old[0], &old[1], &young[0], &young[1], own[0], own[1], own[2], own[3]};
    static std::atomic<bool> all_run{false};
    static std::atomic<int> events{0};
    static const int last = static_cast<int>(random(60));
    const unsigned way = random(7); // a handler of the first four or of `alone`, main, another thread
    const bool pool_is_empty = seed % 3 == 0;
    const auto begin = [way, pool_is_empty](auto& d, unsigned me) { // it posts to itself
        d.on_event = [=, &d](waiter_event& e) {
            if (all_run && ++events > last && way == me) {
                while (pool_is_empty && Diner_info_list::get().get_blank_event()) {
                }
                exit(static_cast<int>(10 + me));
            }
            d.waiter.send_event(e);
        };
        d.begin(true);
        d.waiter.send_event(waiter_event(2000, 1, 0));
        d.start();
    };
    for (unsigned i = 0; i < 8; ++i) begin(*all[i], i < 4 ? i : 99);
    begin(alone, 4);
    all_run = true; // main uses them no more
    for (int i = 0; i < 2; ++i) {
        std::thread([] {
            for (;;) {
                lock_of_all.lock();
                lock_of_all.unlock();
                std::this_thread::yield();
            }
        }).detach();
    }
    std::thread([seed] {
        Random mine(seed + 1);
        for (Borrower* x : own) {
            mine.pause();
            x->terminate(mine(2));
            x->wait_terminate();
            delete x;
        }
    }).detach();
    if (way == 6) {
        std::thread([] {
            wait_until([] { return events > last; });
            exit(16);
        }).detach();
    }
    while (way != 5 || events <= last) std::this_thread::yield();
    exit(15);
}

TEST(Diner_ends, of_processes_that_exit_anywhere) {
    for (unsigned seed = 1; seed <= 40 * seeds && !HasFailure(); ++seed) {
        Random random(seed);
        random(60);
        const Child_result r = run_child([seed] { run_and_exit(seed); });
        EXPECT_EQ(but_late_locks(r.end()), std::to_string(10 + random(7)) + " ") << seed;
    }
}

} // namespace
