// SPDX-License-Identifier: MIT
#include "glue/diner/module_man.h"
#include "support/child.h"
#include <algorithm>
#include <csignal>
#include <gtest/gtest.h>
#include <new>
#include <set>
#include <thread>
#include <tuple>
#include <vector>

namespace {

TEST(Module_ids, ordinary_ones_count_up_and_extended_ones_down) {
    module_man mm;
    const std::tuple<int, bool, std::vector<short>> steps[] = {
        {1, false, {1026}},  {1, true, {-1}}, {3, false, {1027, 1028, 1029}},
        {2, true, {-2, -3}}, {0, false, {}},  {1, false, {1030}},
    };
    for (const auto& [n, extended, expected] : steps) {
        std::vector<short> ids(static_cast<size_t>(n));
        EXPECT_EQ(mm.init_module_array(ids.data(), n, extended), 0);
        EXPECT_EQ(ids, expected);
    }
}

TEST(Module_ids, run_out_at_the_end_of_16_bits_without_colliding) {
    const std::tuple<bool, int, short> kinds[] = {{false, 32767 - 1025, 32767}, {true, 32768, -32768}};
    module_man mm;
    for (const auto& [extended, available, last] : kinds) {
        std::vector<short> ids(40000, 0);
        EXPECT_EQ(mm.init_module_array(ids.data(), available + 1, extended), -1);
        EXPECT_EQ(ids[0], 0) << "a refused request hands out nothing";
        EXPECT_EQ(mm.init_module_array(ids.data(), available, extended), 0);
        EXPECT_EQ(ids[static_cast<size_t>(available) - 1], last);
        short id = 0;
        EXPECT_TRUE(mm.init_module(&id, extended) == -1 && id == 0);
    }
}

TEST(Event_pool, hands_out_each_of_its_1000_nodes_once_and_frees_the_block_of_a_returned_one) {
    module_man mm;
    std::set<waiter_event_node*> nodes;
    while (waiter_event_node* n = mm.get_blank_event()) nodes.insert(n);
    EXPECT_EQ(nodes.size(), 1000u);
    EXPECT_EQ(mm.num_free_events(), 0);
    (*nodes.begin())->event.set_extended_data(reinterpret_cast<const unsigned char*>("abc"), 3);
    for (waiter_event_node* n : nodes) mm.return_used_event(n);
    EXPECT_EQ((*nodes.begin())->event.extended, nullptr);
    EXPECT_TRUE(mm.num_free_events() == 1000 && mm.least_free_events() == 0);
}

TEST(Event_pool, reports_a_node_that_comes_back_twice_or_while_it_is_queued) {
    for (bool queued : {true, false}) {
        const Child_result r = run_child([queued] {
            module_man mm;
            c_sl_list<waiter_event_node> queue;
            waiter_event_node* n = mm.get_blank_event();
            if (queued)
                queue.push(n);
            else
                mm.return_used_event(n);
            mm.return_used_event(n);
        });
        EXPECT_EQ(r.signal, SIGABRT) << queued;
        EXPECT_EQ(r.out.rfind("BUG: ", 0), 0u) << r.out;
    }
}

TEST(Event_pool, ignores_nodes_that_come_back_after_its_destruction_began) {
    alignas(module_man) static unsigned char storage[sizeof(module_man)];
    module_man* mm = new (storage) module_man;
    waiter_event_node* n = mm->get_blank_event();
    mm->~module_man();
    const std::vector<unsigned char> before(storage, storage + sizeof storage);
    mm->return_used_event(n);
    EXPECT_TRUE(std::equal(before.begin(), before.end(), storage)) << "the storage may belong to someone else by now";
}

TEST(Event_pool, never_gives_a_node_to_two_threads) {
    module_man mm;
    constexpr int rounds = 4000, held = 40;
    std::atomic<int> collisions{0};
    std::vector<std::thread> threads;
    for (int32_t t = 1; t <= 4; ++t) {
        threads.emplace_back([&mm, &collisions, t] {
            std::vector<waiter_event_node*> nodes;
            for (int round = 0; round < rounds; ++round) {
                for (int i = 0; i < 1 + round % held; ++i) {
                    nodes.push_back(mm.get_blank_event());
                    nodes.back()->event.id = t;
                }
                for (waiter_event_node* n : nodes) {
                    if (n->event.id != t) ++collisions;
                    mm.return_used_event(n);
                }
                nodes.clear();
            }
        });
    }
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(collisions, 0);
    EXPECT_EQ(mm.num_free_events(), 1000);
    EXPECT_GE(mm.least_free_events(), 1000 - 4 * held);
    EXPECT_LE(mm.least_free_events(), 1000 - held);
}

} // namespace
