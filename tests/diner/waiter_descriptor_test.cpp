// SPDX-License-Identifier: MIT
#include "glue/diner/waiter_descriptor.h"
#include "glue/diner/waiter_list.h"
#include "support/Manual_clock.h"
#include "support/allocations.h"
#include "support/capture.h"
#include "util/tsan.h"
#include <QCoreApplication>
#include <QTimer>
#include <atomic>
#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

namespace {

constexpr bool coalesce = true, unique = true, no = false;

const unsigned char* bytes(const char* text) { return reinterpret_cast<const unsigned char*>(text); }

std::string text_of(const waiter_event& e) {
    std::string s = std::to_string(e.module_id) + ":" + std::to_string(e.id) + ":" + std::to_string(e.data);
    if (e.extended)
        s += ":" + std::string(reinterpret_cast<const char*>(e.get_extended_data()), e.get_extended_data_len());
    return s;
}

/// Takes without waiting; "nothing" when nothing is pending.
std::string take(waiter_descriptor& w) {
    waiter_event e;
    return w.get_event(&e, Atime::now()) == 0 ? text_of(e) : "nothing";
}

class Waiter : public testing::Test {
protected:
    Waiter() { w.init(&mm); }
    ~Waiter() override {
        w.flush_events();
        EXPECT_EQ(mm.num_free_events(), 1000) << "every node comes back";
        EXPECT_EQ(w.num_queued(), 0);
    }

    module_man mm;
    waiter_descriptor w;
};

TEST_F(Waiter, queues_merges_or_drops_a_post) {
    const waiter_event e{5, 7, 1}, newer{5, 7, 2}, other{5, 8, 1}, far{6, 7, 1};
    const waiter_event extended{-5, 7, 1}, changed{-5, 7, 2}, zero{0, 7, 1};
    const struct {
        const char* what;
        std::vector<std::tuple<waiter_event, bool, bool>> posts; ///< coalesce, unique
        int nodes;
        std::vector<const char*> deliveries;
        // clang-format off
    } cases[] = {
        {"plain posts stay apart", {{e, no, no}, {newer, no, no}}, 2, {"5:7:1", "5:7:2"}},
        {"coalesced posts share a node and its data, each is delivered",
         {{e, coalesce, no}, {newer, coalesce, no}, {newer, coalesce, no}}, 1, {"5:7:1", "5:7:1", "5:7:1"}},
        {"a coalesced post joins a plain one in its place",
         {{e, no, no}, {other, no, no}, {newer, coalesce, no}}, 2, {"5:7:1", "5:7:1", "5:8:1"}},
        {"only the same module and id coalesce",
         {{e, coalesce, no}, {other, coalesce, no}, {far, coalesce, no}}, 3, {"5:7:1", "5:8:1", "6:7:1"}},
        {"extended modules never coalesce",
         {{extended, coalesce, no}, {extended, coalesce, no}, {zero, coalesce, no}, {zero, coalesce, no}}, 4,
         {"-5:7:1", "-5:7:1", "0:7:1", "0:7:1"}},
        {"a unique post of a queued event is dropped whatever its data",
         {{e, no, no}, {newer, no, unique}, {other, no, unique}}, 2, {"5:7:1", "5:8:1"}},
        {"events of extended modules are the same only with the same data",
         {{extended, no, unique}, {extended, no, unique}, {changed, no, unique}, {zero, no, unique}}, 3,
         {"-5:7:1", "-5:7:2", "0:7:1"}},
        {"unique goes before coalesce", {{e, coalesce, unique}, {newer, coalesce, unique}}, 1, {"5:7:1"}},
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        for (const auto& [event, merge, once] : c.posts) EXPECT_EQ(w.send_event(event, merge, once), 0);
        EXPECT_TRUE(w.num_queued() == c.nodes && mm.num_free_events() == 1000 - c.nodes);
        for (const char* d : c.deliveries) EXPECT_EQ(take(w), d);
        EXPECT_EQ(take(w), "nothing");
    }
}

TEST_F(Waiter, compares_a_post_with_all_that_is_queued) {
    w.send_event({5, 1, 0}, no, no);
    w.send_event({5, 2, 0}, no, no);
    EXPECT_EQ(take(w), "5:1:0");
    w.send_event({5, 3, 0}, no, no); // posted after the taker began on the others
    for (int id : {2, 3}) {
        w.send_event({5, id, 1}, no, unique);
        w.send_event({5, id, 2}, coalesce, no);
    }
    EXPECT_EQ(w.num_queued(), 2);
    for (const char* expected : {"5:2:0", "5:2:0", "5:3:0", "5:3:0", "nothing"}) EXPECT_EQ(take(w), expected);
    EXPECT_EQ(w.longest_queue(), 2);
}

TEST_F(Waiter, starts_a_second_node_when_a_repeat_count_is_full) {
    constexpr int posts = 65535 + 3;
    for (int i = 0; i < posts; ++i) ASSERT_EQ(w.send_event({5, 7, 1}, coalesce, no), 0);
    EXPECT_EQ(w.num_queued(), 2);
    int delivered = 0;
    while (take(w) == "5:7:1") ++delivered;
    EXPECT_EQ(delivered, posts);
    EXPECT_EQ(take(w), "nothing");
}

TEST_F(Waiter, drops_posts_but_not_wake_ups_while_disabled_or_not_initialised) {
    waiter_descriptor never;
    EXPECT_EQ(never.send_event({5, 7, 1}, no, no), 0);
    EXPECT_EQ(take(never), "nothing");

    w.send_anonymous_event();
    w.send_event({5, 7, 1}, no, no);
    w.set_enabled(false);
    w.send_anonymous_event();
    EXPECT_EQ(w.send_event({5, 7, 2}, no, no), 0);
    w.set_enabled(true);
    w.send_event({5, 7, 3}, no, no);
    w.deinit();
    EXPECT_EQ(w.send_event({5, 7, 4}, no, no), 0);
    for (const char* expected : {"5:7:1", "5:7:3", "1:1:0", "1:1:0", "nothing"}) EXPECT_EQ(take(w), expected);
    w.init(&mm);
    w.send_event({5, 7, 5}, no, no);
    EXPECT_EQ(take(w), "5:7:5");
}

TEST_F(Waiter, may_queue_half_of_what_is_free_and_still_merge_when_full) {
    waiter_descriptor second;
    second.init(&mm);
    const std::tuple<waiter_descriptor*, int, int> fills[] = {{&w, 334, 666}, {&second, 223, 443}};
    for (const auto& [waiter, room, free_then] : fills) {
        int fit = 0;
        while (waiter->send_event({5, fit, 0}, coalesce, no) == 0) ASSERT_LE(++fit, 1000);
        EXPECT_TRUE(fit == room && waiter->longest_queue() == room) << fit;
        EXPECT_EQ(mm.num_free_events(), free_then);
        EXPECT_EQ(waiter->send_event({-5, 7, 0}, no, no), -1);
        EXPECT_EQ(waiter->send_event({5, 0, 0}, coalesce, no), 0) << "a merged post needs no node";
        EXPECT_EQ(waiter->send_event({5, 0, 0}, no, unique), 0) << "a dropped post needs no node";
    }
    EXPECT_EQ(mm.least_free_events(), 443);
    second.flush_events();
    for (int i = 0; i < 101; ++i) EXPECT_EQ(take(w), "5:" + std::to_string(i ? i - 1 : 0) + ":0");
    for (int i = 0; i < 100; ++i) EXPECT_EQ(w.send_event({-5, i, 0}, no, no), 0);
    EXPECT_EQ(w.send_event({-5, 7, 0}, no, no), -1);
    EXPECT_TRUE(w.num_queued() == 334 && w.longest_queue() == 334 && mm.num_free_events() == 666);

    // What counts is the queue as it is now, not as it was when the taker began on it.
    w.flush_events();
    for (int i = 0; i < 200; ++i) EXPECT_EQ(w.send_event({-5, i, 0}, no, no), 0);
    for (int i = 0; i < 199; ++i) take(w);
    std::vector<waiter_event_node*> others;
    while (mm.num_free_events() > 299) others.push_back(mm.get_blank_event());
    EXPECT_EQ(w.send_event({-5, 7, 0}, no, no), 0);
    for (waiter_event_node* n : others) mm.return_used_event(n);
}

TEST_F(Waiter, delivers_a_copy_of_the_block_and_frees_what_the_taker_held) {
    waiter_event sent(-5, 7, 1), out(9, 9, 9);
    sent.set_extended_data(bytes("first"), 5);
    out.set_extended_data(bytes("stale"), 5);
    w.send_event(sent, no, no);
    sent.set_extended_data(bytes("second"), 6);
    w.send_event(sent, no, no);
    w.send_event({5, 7, 2}, no, no);
    for (const char* expected : {"-5:7:1:first", "-5:7:1:second", "5:7:2"}) {
        w.get_event(&out);
        EXPECT_EQ(text_of(out), expected);
    }
    w.send_event(sent, no, no); // left to be flushed
}

TEST_F(Waiter, asks_the_application_to_exit_for_a_coalesced_block_of_an_ordinary_module) {
    int argc = 0;
    QCoreApplication app(argc, nullptr);
    waiter_event sent(5, 7, 1);
    sent.set_extended_data(bytes("block"), 5);
    Capture err(stderr);
    QTimer::singleShot(0, [&] {
        for (int i = 0; i < 3; ++i) w.send_event(sent, coalesce, no);
        w.send_event(sent, no, no); // not coalesced: no complaint
    });
    EXPECT_EQ(app.exec(), -147);
    const std::string line = "ERROR: Event expects extended module id\n";
    EXPECT_EQ(err.text(), line + line + line);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(take(w), "5:7:1:block") << "the posts go on";
    EXPECT_EQ(take(w), "nothing");
}

TEST_F(Waiter, waits_until_the_deadline_rounded_up_to_10_ms) {
    using namespace std::chrono;
    Manual_clock clock;
    for (const auto& [ahead, waited] : {std::pair(-5000, 0), {0, 0}, {1, 10}, {10, 10}, {11, 20}, {20, 20}}) {
        SCOPED_TRACE(ahead);
        const Atime deadline = Atime::from_now(ahead);
        bool close = false;
        // A loaded machine may wake us late, but not always; never early.
        for (int attempt = 0; attempt < 100 && !close; ++attempt) {
            waiter_event out(9, 9, 9);
            const auto start = steady_clock::now();
            ASSERT_EQ(w.get_event(&out, deadline), -1);
            const auto took = steady_clock::now() - start;
            ASSERT_GE(took, milliseconds(waited));
            close = took < milliseconds(waited + 9);
            EXPECT_EQ(text_of(out), "9:9:9") << "left alone when nothing came";
        }
        EXPECT_TRUE(close);
        w.send_event({5, 7, 1}, no, no);
        waiter_event out;
        EXPECT_EQ(w.get_event(&out, deadline), 0) << "what is pending comes whatever the deadline";
    }
}

TEST_F(Waiter, allocates_nothing_on_the_way_of_an_event) {
    waiter_event out;
    long before = 0;
    for (int i = 0; i < 500; ++i) {
        if (i == 1) before = allocations();
        w.send_event({5, i % 3, 0}, coalesce, no);
        w.send_event({-5, i % 3, 0}, no, unique);
        w.send_anonymous_event();
        w.get_event(&out);
        w.get_event(&out, Atime::from_now(1000));
    }
    EXPECT_EQ(allocations() - before, 0);
}

/// A Qt object woken by mirrored posts.
class Mirror : public QObject {
public:
    static constexpr QEvent::Type type = QEvent::Type(QEvent::User + 7);
    int woken = 0;
    std::function<void()> on_wake = [] {};

    bool event(QEvent* e) override {
        Util::tsan::acquire(this);
        if (e->type() != type) return QObject::event(e);
        ++woken;
        on_wake();
        return true;
    }
};

TEST_F(Waiter, mirrors_each_token_as_one_qt_event) {
    int argc = 0;
    QCoreApplication app(argc, nullptr);
    Mirror mirror;
    w.init(&mm, &mirror, Mirror::type);
    const auto wakes = [&](int n) {
        QCoreApplication::sendPostedEvents(&mirror);
        return std::exchange(mirror.woken, 0) == n;
    };
    w.send_event({5, 7, 1}, no, no);
    EXPECT_TRUE(wakes(1));
    w.send_event({5, 7, 1}, coalesce, no);
    EXPECT_TRUE(wakes(1)) << "a merged post";
    w.send_event({5, 7, 1}, no, unique);
    EXPECT_TRUE(wakes(0)) << "a dropped duplicate";
    w.send_anonymous_event();
    EXPECT_TRUE(wakes(1));
    w.set_enabled(false);
    w.send_event({5, 8, 1}, no, no);
    w.deinit();
    w.send_anonymous_event();
    w.init(&mm); // without a target
    w.send_event({5, 9, 1}, no, no);
    EXPECT_TRUE(wakes(0));
}

TEST_F(Waiter, has_the_event_ready_when_its_qt_event_arrives) {
    int argc = 0;
    QCoreApplication app(argc, nullptr);
    constexpr int posts = 3000;
    Mirror mirror;
    w.init(&mm, &mirror, Mirror::type);
    int taken = 0;
    mirror.on_wake = [&] {
        if (take(w) != "nothing") ++taken;
        if (mirror.woken == posts) app.quit();
    };
    std::thread poster([&] {
        for (int i = 0; i < posts; ++i) {
            if (i % 3 == 0)
                w.send_anonymous_event();
            else
                while (w.send_event({-5, i, 0}, no, no) != 0) std::this_thread::yield();
        }
    });
    app.exec();
    poster.join();
    EXPECT_EQ(taken, posts);
}

/// Post until there is room.
void post(waiter_descriptor& w, const waiter_event& e, bool merge, bool once) {
    while (w.send_event(e, merge, once) != 0) std::this_thread::yield();
}

TEST_F(Waiter, loses_and_doubles_nothing_with_four_posters) {
    constexpr short merged = 5, plain = -6, single = 7, last = 8;
    constexpr int posts = 8000;
    std::atomic<int> newest{0};
    const auto times = [](auto act) {
        return std::thread([act] {
            for (int i = 1; i <= posts; ++i) act(i);
        });
    };
    std::thread posters[] = {
        times([&](int i) {
            post(w, {merged, i % 2, 0}, coalesce, no);
        }),
        times([&](int i) {
            post(w, {plain, 0, event_word_t(i)}, no, no);
        }),
        times([&](int i) {
            newest = i, post(w, {single, 0, 0}, no, unique);
        }),
        times([&](int) { w.send_anonymous_event(); }),
    };
    int count[2] = {0, 0}, anonymous = 0, seen_newest = 0, out_of_order = 0;
    event_word_t next = 0;
    bool done = false;
    const auto account = [&](const waiter_event& e) {
        if (e.module_id == merged) ++count[e.id];
        if (e.module_id == plain && e.data != ++next) ++out_of_order;
        if (e.module_id == single) seen_newest = newest;
        if (e.module_id == module_man::EVENT_ANONYMOUS.module_id) ++anonymous;
        if (e.module_id == last) done = true;
    };
    std::thread taker([&] {
        waiter_event e;
        for (int i = 0; !done; ++i) {
            if (i % 2)
                w.get_event(&e);
            else if (w.get_event(&e, Atime::from_now(1000)) != 0)
                continue;
            account(e);
        }
        while (w.get_event(&e, Atime::now()) == 0) account(e);
    });
    for (std::thread& p : posters) p.join();
    post(w, {last, 0, 0}, no, no);
    taker.join();
    EXPECT_TRUE(count[0] == posts / 2 && count[1] == posts / 2) << count[0];
    EXPECT_TRUE(next == event_word_t(posts) && out_of_order == 0) << next;
    EXPECT_EQ(seen_newest, posts) << "a dropped duplicate has a delivery still to come";
    EXPECT_EQ(anonymous, posts) << "one token per delivery";
}

TEST_F(Waiter, lets_nothing_in_once_it_is_disabled) {
    constexpr int rounds = 2000, posts = 300; // fewer than there is room for
    std::atomic<int> started{0}, posted{0};
    std::thread poster([&] {
        for (int round = 1; round <= rounds; ++round) {
            while (started < round) std::this_thread::yield();
            for (int i = 0; i < posts; ++i, ++posted) w.send_event({-5, 7, 1}, no, no);
        }
    });
    for (int round = 0; round < rounds; ++round) {
        w.set_enabled(true);
        ++started;
        while (posted < round * posts + round % 50) std::this_thread::yield();
        w.set_enabled(false);
        const int queued = w.num_queued();
        while (posted < (round + 1) * posts) std::this_thread::yield();
        EXPECT_EQ(w.num_queued(), queued);
        for (int i = 0; i < queued; ++i) EXPECT_EQ(take(w), "-5:7:1");
        EXPECT_EQ(take(w), "nothing");
    }
    poster.join();
}

TEST(Waiter_tokens, neither_get_lost_nor_double_when_given_as_the_wait_runs_out) {
    using namespace std::chrono;
    constexpr int rounds = 300;
    waiter_tokens tokens;
    std::atomic<int> started{0}, given{0};
    std::thread giver([&] {
        for (int round = 1; round <= rounds; ++round) {
            while (started < round) std::this_thread::yield();
            // Around the end of the taker's millisecond, a little later each time.
            const auto at = steady_clock::now() + microseconds(980 + round % 150);
            while (steady_clock::now() < at) {
            }
            tokens.give();
            ++given;
        }
    });
    for (int round = 1; round <= rounds; ++round) {
        ++started;
        const bool in_time = tokens.take(1);
        while (given < round) std::this_thread::yield();
        EXPECT_NE(tokens.take(0), in_time) << "what came too late is there for the next";
    }
    giver.join();
    tokens.give();
    tokens.give();
    tokens.take();
    EXPECT_TRUE(tokens.take(0));
    EXPECT_FALSE(tokens.take(0));
    EXPECT_FALSE(tokens.take(1));
}

TEST(Waiter_list, keeps_up_to_16_waiters_in_order_and_posts_to_each) {
    module_man mm;
    waiter_descriptor waiters[17];
    for (waiter_descriptor& w : waiters) w.init(&mm);
    waiter_list list;
    EXPECT_EQ(list.module_id(), 0);
    EXPECT_EQ(list.init(mm), 0);
    EXPECT_EQ(list.add(nullptr), -1);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(list.add(&waiters[i]), 0);
    EXPECT_EQ(list.add(&waiters[16]), -1) << "full";
    EXPECT_EQ(list.remove(&waiters[16]), -1) << "never added";
    EXPECT_TRUE(list.remove(&waiters[3]) == 0 && list.remove(&waiters[3]) == -1 && list.remove(nullptr) == -1);
    EXPECT_EQ(list.add(&waiters[4]), -1) << "there already";
    EXPECT_TRUE(list.size() == 15 && list.add(&waiters[16]) == 0);

    list.send({list.module_id(), 2, 3}, coalesce, no);
    list.send({list.module_id(), 2, 3}, coalesce, no);
    list.send({list.module_id(), 2, 3}, no, unique);
    for (waiter_descriptor& w : waiters) {
        EXPECT_EQ(w.num_queued(), &w == &waiters[3] ? 0 : 1);
        for (int i = 0; i < (&w == &waiters[3] ? 0 : 2); ++i) EXPECT_EQ(take(w), "1026:2:3");
        EXPECT_EQ(take(w), "nothing");
    }
}

} // namespace
