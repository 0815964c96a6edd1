// SPDX-License-Identifier: MIT
#include "NV_store/Settings_fixture.h"
#include "glue/cds/CDS_events.h"
#include "glue/data_stream/Virtual_pair_data_stream.h"
#include "glue/diner/waiter_list.h"
#include "support/test.h"

namespace {

/// Everything that keeps waiters. Each entry registers one, and each tells all that it keeps.
class Holders : public testing::Test {
protected:
    struct Holder {
        const char* told;
        std::function<void(waiter_descriptor&)> keep;
        std::function<void()> tell;
    };
    void tell_list() { list.send(event, waiter_descriptor::merge_duplicates); }

    waiter_event event{2000, 1, 0};
    module_man modules;
    Mutex lock;
    waiter_list list{lock};
    Virtual_pair_data_stream pair{&modules};
    CDS::Head head{&modules, 0};
    Settings tree{&modules};
    const Holder holders[4] = {
        {"streams 1, ranges 0, settings 0", [&](auto& w) { list.add(&w); }, [&] { tell_list(); }},
        {"streams 2, ranges 0, settings 0",
         [&](auto& w) { pair.b.reg_rx_waiter(&w, false), pair.b.reg_tx_waiter(&w, false); },
         [&] { pair.a.printf("x"), pair.b.drop(1); }},
        {"streams 0, ranges 1, settings 0",
         [&](auto& w) {
             const std::lock_guard<Mutex> guard(head);
             CDS::Access_base(&head, 0, 4).reg(&w, 1);
         },
         [&] {
             const std::lock_guard<Mutex> guard(head);
             head.event_signal(nullptr, nullptr, 0, 4, nullptr);
         }},
        {"streams 0, ranges 0, settings 1", [&](auto& w) { tree.speed.register_waiter(&w, 1, false); },
         [&] { tree.signal_all(&tree); }},
    };
};

TEST_F(Holders, forget_a_waiter_that_dies_with_a_line_and_tell_the_others) {
    for (const Holder& h : holders) {
        // Of the heap, where their memory is watched.
        auto dies = std::make_unique<waiter_descriptor>(), stays = std::make_unique<waiter_descriptor>();
        EXPECT_VALUES("0 0", dies->init(&modules), stays->init(&modules));
        h.keep(*dies);
        const std::string line = text_of("Waiter %p dies while it is registered with %s\n", dies.get(), h.told);
        EXPECT_EQ(debug_text([&] { dies.reset(); }), line);
        h.tell();
        h.keep(*stays);
        h.tell();
        EXPECT_GT(stays->num_queued(), 0) << h.told;
        debug_text([&] { stays.reset(); });
        h.tell();
    }
}

TEST_F(Holders, of_up_to_16_waiters_tell_each_and_nothing_else_when_places_move_up) {
    EXPECT_VALUES("0 0 -1", list.module_id(), list.init(modules), list.add(nullptr));
    std::optional<waiter_descriptor> waiters[18];
    std::mt19937 random(1);
    std::set<size_t> kept, alive;
    for (int step = 0; step < 2000; ++step) {
        const size_t i = random() % 18;
        auto& w = waiters[i];
        if (alive.insert(i).second) w.emplace().init(&modules);
        switch (random() % 8) {
        case 0: // it dies
            EXPECT_EQ(debug_text([&] { w.reset(); }).empty(), !kept.erase(i));
            alive.erase(i);
            break;
        case 1:
            EXPECT_EQ(list.remove(&*w), kept.erase(i) ? 0 : -1);
            break;
        default:
            EXPECT_EQ(list.add(&*w), kept.size() < 16 && kept.insert(i).second ? 0 : -1);
        }
        for (int n = 0; n < 2; ++n) tell_list();
        for (size_t k : alive) {
            ASSERT_EQ(waiters[k]->num_queued(), kept.count(k)) << k << " in step " << step;
            waiters[k]->flush_events();
        }
    }
    debug_text([&] {
        for (auto& w : waiters) w.reset();
    });
}

} // namespace
