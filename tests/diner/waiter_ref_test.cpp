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

    waiter_event event{2000, 1, 0};
    module_man modules;
    Mutex lock;
    waiter_list list{lock};
    Virtual_pair_data_stream pair{&modules};
    CDS::Head head{&modules, 0};
    Settings tree{&modules};
    const Holder holders[4] = {
        {"streams 1, ranges 0, settings 0", [&](waiter_descriptor& w) { list.add(&w); },
         [&] { list.send(event, waiter_descriptor::keep_duplicates); }},
        {"streams 2, ranges 0, settings 0",
         [&](waiter_descriptor& w) {
             pair.b.reg_rx_waiter(&w, false);
             pair.b.reg_tx_waiter(&w, false);
         },
         [&] { pair.a.printf("x"), pair.b.drop(1); }},
        {"streams 0, ranges 1, settings 0",
         [&](waiter_descriptor& w) {
             const std::lock_guard<Mutex> guard(head);
             CDS::Access_base(&head, 0, 4).reg(&w, 1);
         },
         [&] {
             const std::lock_guard<Mutex> guard(head);
             head.event_signal(nullptr, nullptr, 0, 4, nullptr);
         }},
        {"streams 0, ranges 0, settings 1", [&](waiter_descriptor& w) { tree.speed.register_waiter(&w, 1, false); },
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

TEST_F(Holders, forget_nothing_else_when_places_move_up) {
    std::optional<waiter_descriptor> waiters[17];
    for (auto& w : waiters) w.emplace().init(&modules);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(list.add(&*waiters[i]), 0);
    EXPECT_VALUES("0 0", list.remove(&*waiters[1]), list.add(&*waiters[1]));
    debug_text([&] { waiters[0].reset(), waiters[5].reset(); });
    EXPECT_EQ(list.add(&*waiters[16]), 0) << "in a place of those that died";
    list.send(event, waiter_descriptor::keep_duplicates);
    for (auto& w : waiters) {
        if (!w) continue;
        EXPECT_EQ(w->num_queued(), 1);
        EXPECT_EQ(list.remove(&*w), 0);
    }
    EXPECT_EQ(debug_text([&] { waiters[1].reset(); }), "") << "it was taken out";
}

} // namespace
