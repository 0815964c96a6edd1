// SPDX-License-Identifier: MIT
// Diners are used by several threads at once, at random and beyond what they can take: they are posted to while they
// stall, stop, start, take turns, get timeouts while the clock is set, and end, also by exits of the process. Every
// call returns, no event is handled twice or unless accepted, no timeout runs that was removed, none is forgotten, no
// handler runs after terminate(true), and nothing is left in the list or missing in the pool. With --nightly a hundred
// times as long, and thirty times as many exits.
#include "glue/diner/Clock_watch.h"
#include "glue/diner/Diner_selector.h"
#include "support/Test_diner.h"
#include "support/stress.h"
#include "support/test.h"
#include <regex>

namespace {

constexpr short load_module = 2002, mark_module = 2003;

std::atomic<int> violations{0}; ///< events handled twice or unless accepted, removed timeouts that ran, late ends

/// Keeps account of its events and timeouts.
struct Player : Test_diner<Diner_external_protection<Diner>> {
    explicit Player(Mutex& lock, int id = 0, size_t numbers = 512) : Test_diner("player", id, lock), due(numbers) {
        on_timeout = [this](Timeout& t) {
            violations += &t == &far;
            for (size_t i = 0; i < num_timeouts; ++i) {
                if (&t != &timeouts[i]) continue;
                violations += wanted[i] == not_wanted;
                if (t.period == 0) wanted[i] = not_wanted;
            }
        };
    }
    ~Player() override {
        if (state != state_uninit) terminate(true);
        if (!terminated() && state != state_uninit) _exit(98); // the thread outlives its diner
        alive = false;
    }
    void handle_event(waiter_event& e) override {
        if (!alive) _exit(97);
        if (e.module_id == load_module) violations += --due[size_t(e.id)] < 0;
        marks += e.module_id == mark_module;
        Test_diner::handle_event(e);
    }
    /// Accepted, merged into one of its like, or dropped by one that is disabled.
    bool post(int number, bool merge) {
        ++due[size_t(number)];
        ++posted;
        const bool taken = waiter.send_event(waiter_event(load_module, number, 0), merge, false) == 0;
        due[size_t(number)] -= !taken;
        return taken;
    }
    bool mark() { return waiter.send_event(waiter_event(mark_module, 0, 0)) == 0; }
    void change_timeout(Random& random) {
        const Held held(*this);
        if (random(16) == 0) Diner_info_list::get().clock_stepped(0, 3 - random(7));
        const size_t i = random(num_timeouts);
        wanted[i] = random(3) == 0 ? not_wanted : state == state_stopping ? may_be_dropped : is_wanted;
        if (wanted[i] == not_wanted || submitted(timeouts[i])) remove_timeout(timeouts[i]);
        timeouts[i].period = random(2);
        if (wanted[i] != not_wanted) violations += submit_timeout(timeouts[i], random(4)) != 0;
    }
    void diner_stop() override { std::replace(wanted, std::end(wanted), is_wanted, may_be_dropped); }
    /// What is to run once did; periods go on for ever.
    bool ran_all() {
        const Held held(*this);
        int left = 0;
        for (size_t i = 0; i < num_timeouts; ++i) left += wanted[i] == is_wanted && timeouts[i].period == 0;
        return left == 0;
    }
    bool handled_all() const {
        return std::all_of(due.begin(), due.end(), [](int n) { return n == 0; });
    }

    static constexpr size_t num_timeouts = 6;
    Timeout timeouts[num_timeouts], far;
    enum { not_wanted, is_wanted, may_be_dropped } wanted[num_timeouts] = {};
    std::atomic<bool> alive{true};
    std::atomic<int> marks{0};
    std::deque<std::atomic<int>> due; ///< of each number: so often accepted, and not handled yet
};

int free_events() { return Diner_info_list::get().num_free_events(); }

TEST(Diners, under_load_stalled_stopped_started_and_ended_also_without_a_free_event) {
    constexpr int num_posters = 4, at_first = 4000, rounds = 100, each = at_first + rounds * 400;
    alarm(100); // kills what hangs
    Mutex locks[20];
    std::deque<Player> players;
    for (Mutex& m : locks) players.emplace_back(m, 0, num_posters * each / 40).begin();
    for (size_t i = 0; i < 20; i += 4) players[i].lock_gate.shut();
    std::atomic<int> allowed{at_first}, posts{0}, refused{0};
    Threads posters;
    for (int k = 0; k < num_posters; ++k) {
        posters.emplace_back([&, k] {
            for (int n = 0; n < each; ++n, ++posts) {
                while (n >= allowed) std::this_thread::yield();
                refused += !players[size_t(k + n) % players.size()].post((k * each + n) / 40, n % 2);
            }
        });
    }
    EXPECT_TRUE(wait_until([&] { return posts == num_posters * at_first; }));
    EXPECT_GT(refused, 1000) << "too much for those that stall";
    EXPECT_GT(free_events(), 0) << "they could not take all";
    for (auto& p : players) p.lock_gate.open();
    EXPECT_TRUE(wait_until([] { return free_events() == module_man::pool_size; }));
    for (auto& p : players) EXPECT_TRUE(wait_until([&p] { return p.handled_all(); })) << "accepted and lost";

    for (int round = 0; round < rounds && !HasFailure(); ++round) {
        Player& p = players[size_t(round) % 3];
        allowed += 400;
        EXPECT_TRUE(wait_until([&, before = posts.load()] { return posts > before + 50; }));
        int marks = p.marks;
        const auto stop = [&] {
            for (int i = 0; i < 10; ++i) marks += p.mark();
            return p.stop() == 0;
        };
        const auto stop_without_a_free_event = [&] { return Exhausted_pool(), stop(); };
        EXPECT_VALUES("true true", ((round % 2 && stop_without_a_free_event()) || wait_until(stop)),
                      p.in_state(Diner::state_stop));
        EXPECT_EQ(p.marks, marks) << "what was posted before the stop is handled before it";
        EXPECT_TRUE(p.run());
    }
    allowed = each;
    for (auto& p : players) Exhausted_pool(), p.terminate(true);
    posters.join();
    EXPECT_VALUES(texts(0, module_man::pool_size), violations, free_events());
    alarm(0);
}

std::atomic<int> hours_ahead{0}; ///< of the clock

/// Without the lines of tested locks, of a clock that was set, of timeouts whose destructors withdraw them, and of
/// locks that came late, as they may on a busy machine; one that never comes ends the process.
std::string unexpected(const std::string& text) {
    return std::regex_replace(
        text,
        std::regex("Testing +player|\\.\\. Ok\n|(Clock_watch: the clock|Deadlock (assumed|avoided)|Destruct) .*\n"),
        "");
}

void pause(Random& random) { // none, a turn or some ten microseconds
    const unsigned kind = random(8);
    for (volatile unsigned i = kind < 3 ? random(5000) : 0; i > 0; i = i - 1) {
    }
    if (kind == 0) std::this_thread::yield();
}

/// What others may do to a diner at any time, each call by chance.
void use(Player& p, Random& random, Diner_selector& selector, Clock_watch& watch, Timeout& timeout) {
    const std::function<void()> seldom[] = {
        [&] { p.start(); },
        [&] { p.stop(); },
        [&] { p.wait_stopped(); },
        [&] { p.waiter.set_enabled(random(2)); },
        [&] { p.submit_timeout(timeout, random(3)); },
        [&] { p.submit_timeout(p.far, 1000000); },
        [&] { watch.check(); },
        [&] { hours_ahead += 1 - random(3); },
        [&] { selector.select_diner(random(3)); },
        [&] { p.get_state(); },
        [&] { p.waiter.send_event(waiter_event(2000, 1, 0), random(2), random(2)); },
        [&] { Diner_info_list::get().test_lock(); },
    };
    for (unsigned n = random(200u); n > 0; --n, pause(random)) {
        const unsigned what = random(10);
        if (what < 5)
            p.post(random(512), random(2));
        else if (what < 8)
            p.change_timeout(random);
        else
            seldom[random(std::size(seldom))]();
    }
}

TEST(Diners, used_in_every_way_then_ended_by_several_threads_at_once) {
    Capture err(stderr);
    Util::set_wall_clock(
        [](struct timespec& now) { clock_gettime(CLOCK_REALTIME, &now), now.tv_sec += 3600 * hours_ahead; });
    int posts = 0, timeouts = 0;
    for (unsigned seed = 1; seed <= (nightly() ? 15000 : 150) && !HasFailure(); ++seed) {
        SCOPED_TRACE(seed);
        alarm(60); // kills what hangs
        Mutex locks[3];
        Diner_selector selector;
        Clock_watch watch(Diner_info_list::get());
        std::deque<Player> players;
        for (int i = 0; i < 3; ++i) players.emplace_back(locks[seed % 4 ? 0 : i], i).begin(true, false, &selector);
        for (const bool to_the_end : {false, true}) {
            Threads threads;
            for (int k = 0; k < 6; ++k) {
                threads.emplace_back([&, k] {
                    Random random(seed * 100 + unsigned(k) + to_the_end * 10u);
                    Player& p = players[size_t(k / 2)];
                    Timeout timeout;
                    timeout.period = random(2);
                    use(p, random, selector, watch, timeout);
                    if (!to_the_end) return;
                    p.terminate(k % 2 || random(2));
                    if (k % 2 == 0) p.wait_terminate();
                    violations += !p.terminated();
                });
            }
            threads.join();
            hours_ahead += 1000; // steps that cancel out before a look may leave a diner asleep
            watch.check();
            for (int i = 0; i < 3 && !to_the_end; ++i) {
                Player& p = players[size_t(i)];
                EXPECT_TRUE(wait_until([&] { // one that was still stopping when it was selected did not start
                    selector.select_diner((i + 1) % 3);
                    selector.select_diner(i);
                    p.waiter.set_enabled(true);
                    return p.mark() && wait_until([&p] { return p.marks > 0; }, std::chrono::milliseconds(100));
                })) << "it does not hear";
                EXPECT_TRUE(wait_until([&p] { return p.ran_all(); })) << "a timeout is forgotten";
            }
        }
        for (Player& p : players) posts += p.posted, timeouts += p.timeouts_handled;
        players.clear();
        EXPECT_EQ(Diner_info_list::get().print_alive(), 0);
        EXPECT_VALUES(texts(0, module_man::pool_size), violations, free_events());
    }
    alarm(0);
    Util::set_wall_clock(nullptr);
    EXPECT_EQ(unexpected(err.text()), "");
    printf("%d cases of posts, %d of timeouts\n", posts, timeouts);
}

Mutex& lock_of_all = *new Mutex; // used to the very end
Player old[2] = {Player(lock_of_all), Player(lock_of_all)};

/// Diners of every age run, some threads use their lock, one ends diners of its own, and after some events one way to
/// exit is taken.
void run_and_exit(unsigned seed) {
    Random random(seed);
    Diner_info_list::get();
    static Mutex lock;
    static Player young[2] = {Player(lock_of_all), Player(lock_of_all)}, alone(lock);
    std::vector<Player*> own, all = {&old[0], &old[1], &young[0], &young[1], &alone};
    for (int i = 0; i < 4; ++i) all.push_back(own.emplace_back(new Player(lock_of_all)));
    static std::atomic<bool> all_run{false};
    static std::atomic<int> events{0};
    static const int last = random(60);
    const unsigned way = random(7u);            // a handler of the first five, main, another thread
    for (unsigned i = 0; i < all.size(); ++i) { // they post to themselves
        Player& p = *all[i];
        p.on_event = [=, &p](waiter_event& e) {
            if (all_run && ++events > last && way == i && i < 5) {
                while (seed % 3 == 0 && Diner_info_list::get().get_blank_event()) {
                }
                exit(static_cast<int>(10 + i));
            }
            p.waiter.send_event(e);
        };
        p.begin(true);
        p.waiter.send_event(waiter_event(2000, 1, 0));
        p.start();
    }
    all_run = true; // main uses them no more
    const auto use_lock = [] {
        for (;; usleep(20)) lock_of_all.lock(), lock_of_all.unlock(); // a busy machine must not starve the others
    };
    const auto end_own = [own, seed] {
        Random mine(seed + 1);
        for (Player* p : own) pause(mine), p->terminate(mine(2)), p->wait_terminate(), delete p;
    };
    const auto exit_late = [way](unsigned me) {
        while (way != me || events <= last) usleep(20);
        exit(static_cast<int>(10 + me));
    };
    std::thread(use_lock).detach(), std::thread(use_lock).detach(), std::thread(end_own).detach();
    if (way == 6) std::thread(exit_late, 6).detach();
    exit_late(5);
}

TEST(Diners, in_processes_that_exit_anywhere) {
    for (unsigned seed = 1; seed <= (nightly() ? 1200 : 40) && !HasFailure(); ++seed) {
        Random random(seed);
        random(60);
        const Child_result r = run_child([seed] { run_and_exit(seed); });
        EXPECT_EQ(unexpected(r.end()), std::to_string(10 + random(7)) + " ") << seed;
    }
}

} // namespace
