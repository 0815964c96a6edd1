// SPDX-License-Identifier: MIT
// More is posted than diners can handle, while they stall, stop, start, take turns and end. Every accepted event is
// handled once, no refused one is, and every call returns.
#include "glue/diner/Diner_selector.h"
#include "support/Test_diner.h"
#include "support/test.h"

namespace {

constexpr int posters = 4;
constexpr short load_module = 2002, mark_module = 2003;

struct Diner_under_load : Test_diner<> {
    bool send(short module, int number) { return waiter.send_event(waiter_event(module, number, 0)) == 0; }
};

/// Threads that post numbered events to diners in turn, and the account of each event.
struct Load {
    Load(int num_diners, int num_each) : diners(size_t(num_diners)), each(num_each), balance(size_t(posters * each)) {
        for (int i = 0; i < num_diners; ++i) {
            diners[size_t(i)].own.id = i;
            diners[size_t(i)].on_event = [this](waiter_event& e) {
                if (e.module_id == load_module) --balance[size_t(e.id)];
                marks += e.module_id == mark_module;
            };
        }
        for (int p = 0; p < posters; ++p) threads.emplace_back([this, p] { post(p); });
        alarm(100); // kills what hangs
    }
    ~Load() {
        over = true;
        for (auto& t : threads) t.join();
        alarm(0);
    }
    void post(int p) {
        for (int n = 0; n < each && !over; ++n, ++posts) {
            while (n >= allowed && !over) std::this_thread::yield();
            const int number = p * each + n;
            ++balance[size_t(number)];
            if (diners[size_t(p + n) % diners.size()].send(load_module, number)) continue;
            --balance[size_t(number)];
            ++refused;
        }
    }
    /// Events that were handled more than once, or although they were refused.
    long wrong() const {
        return std::count_if(balance.begin(), balance.end(), [](int b) { return b < 0; });
    }
    long lost() const { return std::count(balance.begin(), balance.end(), 1); } ///< accepted, never handled

    std::vector<Diner_under_load> diners;
    const int each;              ///< events that each thread posts
    std::atomic<int> allowed{0}; ///< so many for now
    std::atomic<int> posts{0}, refused{0}, marks{0};
    std::atomic<bool> over{false};
    std::vector<std::atomic<int>> balance; ///< of each event: 1 accepted, less the times it was handled
    std::vector<std::thread> threads;
};

/// All that is left of the pool, held as by a sender gone mad.
struct Exhausted_pool {
    Exhausted_pool() {
        while (waiter_event_node* n = Diner_info_list::get().get_blank_event()) all.push_back(n);
    }
    ~Exhausted_pool() {
        for (waiter_event_node* n : all) Diner_info_list::get().return_used_event(n);
    }
    std::vector<waiter_event_node*> all;
};

int free_events() { return Diner_info_list::get().num_free_events(); }

TEST(Overload, of_twenty_diners_on_one_pool_some_of_them_stalled) {
    Load load(20, 4000);
    for (auto& d : load.diners) d.begin();
    for (size_t i = 0; i < 20; i += 4) load.diners[i].lock_gate.shut();
    load.allowed = load.each;
    ASSERT_TRUE(wait_until([&] { return load.posts == posters * load.each; }));
    EXPECT_GT(load.refused, 1000) << "too much for those that stall";
    EXPECT_GT(free_events(), 0) << "they could not take all";
    for (auto& d : load.diners) d.lock_gate.open();
    EXPECT_TRUE(wait_until([] { return free_events() == module_man::pool_size; }));
    for (auto& d : load.diners) d.terminate(true);
    EXPECT_EQ(load.lost(), 0);
    EXPECT_EQ(load.wrong(), 0);
}

TEST(Overload, while_diners_stop_and_start_and_end) {
    const int rounds = 100;
    Load load(3, 400 * rounds);
    for (auto& d : load.diners) d.begin();
    for (int round = 0; round < rounds; ++round) {
        Diner_under_load& d = load.diners[static_cast<size_t>(round) % 3];
        load.allowed += 400;
        ASSERT_TRUE(wait_until([&, before = load.posts.load()] { return load.posts > before + 50; }));
        int marks = load.marks;
        const auto stop = [&] {
            for (int i = 0; i < 10; ++i) marks += d.send(mark_module, i);
            return d.stop() == 0;
        };
        bool stopped = false;
        if (round % 2) {
            const Exhausted_pool nothing_left;
            stopped = stop();
        }
        ASSERT_VALUES("true true", (stopped || wait_until(stop)), d.in_state(Diner::state_stop));
        EXPECT_EQ(load.marks, marks) << "what was posted before the stop is handled before it";
        ASSERT_TRUE(d.run());
    }
    for (auto& d : load.diners) {
        const Exhausted_pool nothing_left;
        d.terminate(true);
    }
    EXPECT_EQ(load.wrong(), 0);
    EXPECT_EQ(free_events(), module_man::pool_size);
}

TEST(Overload, while_a_selector_switches) {
    const int rounds = 200;
    Diner_selector selector;
    Load load(3, 20 * rounds);
    for (auto& d : load.diners) d.begin(true, false, &selector);
    const Capture withdrawals(stderr); // of timeouts by their destructors
    std::vector<std::thread> switchers;
    for (unsigned seed : {1u, 2u}) {
        switchers.emplace_back([&, seed] {
            std::mt19937 random(seed);
            for (int n = 0; n < rounds; ++n, load.allowed += 10) {
                Timeout timeout;
                timeout.period = 1;
                load.diners[random() % 3].submit_timeout(timeout, 0);
                selector.select_diner(static_cast<int>(random() % 3));
                Diner_info_list::get().clock_stepped(n % 2 ? 1 : -1, 0);
            }
        });
    }
    for (auto& t : switchers) t.join();
    for (int i = 0; i < 3; ++i) {
        Diner_under_load& d = load.diners[static_cast<size_t>(i)];
        EXPECT_TRUE(wait_until([&] { // one that was still stopping when it was selected did not start
            selector.select_diner((i + 1) % 3);
            selector.select_diner(i);
            return wait_until([&d] { return d.get_state() == Diner::state_run; }, std::chrono::milliseconds(100));
        }));
        const int before = load.marks;
        EXPECT_TRUE(wait_until([&] { return d.send(mark_module, 1) && load.marks > before; })) << "it hears";
        d.terminate(true);
    }
    EXPECT_EQ(load.wrong(), 0);
}

} // namespace
