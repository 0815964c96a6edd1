// SPDX-License-Identifier: MIT
#include "glue/diner/waiter_descriptor.h"
#include "glue/diner/waiter_list.h"
#include "support/Manual_clock.h"
#include "support/child.h"
#include <QCoreApplication>
#include <QTimer>
#include <chrono>
#include <climits>
#include <cstring>
#include <gtest/gtest.h>
#include <set>
#include <thread>
#include <vector>

namespace {

constexpr bool coalesce = true, unique = true, no = false;

const unsigned char* bytes(const char* text) { return reinterpret_cast<const unsigned char*>(text); }

waiter_event with_block(const char* text) {
    waiter_event e(-5, 7, 1);
    e.set_extended_data(bytes(text), static_cast<unsigned>(strlen(text)));
    return e;
}

std::string name(const waiter_event& e) {
    std::string s = std::to_string(e.module_id) + ":" + std::to_string(e.id) + ":" + std::to_string(e.data);
    if (e.extended)
        s += ":" + std::string(reinterpret_cast<const char*>(e.get_extended_data()), e.get_extended_data_len());
    return s;
}

/// Takes without waiting; "nothing" when nothing is pending.
std::string take(waiter_descriptor& w) {
    waiter_event e = with_block("stale");
    return w.get_event(&e, Atime::now()) == 0 ? name(e) : "nothing";
}

TEST(Waiter_event, owns_its_block) {
    const std::tuple<const unsigned char*, unsigned, int, const char*> steps[] = {
        {bytes("0123456789"), 10, 1, "-5:7:1:0123456789"},
        {bytes("x"), 0, 0, "-5:7:1"},
        {bytes("abc"), 2, 1, "-5:7:1:ab"},
        {nullptr, 5, 0, "-5:7:1"},
        {bytes("abc"), UINT_MAX - 6, 0, "-5:7:1"},
        {bytes("abc"), 3, 1, "-5:7:1:abc"}};
    waiter_event e = with_block("first"), copy = e, assigned;
    for (const auto& [data, n, result, text] : steps) {
        EXPECT_EQ(e.set_extended_data(data, n), result);
        EXPECT_EQ(name(e), text);
    }
    EXPECT_EQ(std::string(reinterpret_cast<char*>(e.extended), 7), std::string("\3\0\0\0abc", 7)) << "32-bit length";
    assigned = copy;
    assigned = static_cast<waiter_event&>(assigned);
    assigned.set_extended_data(assigned.get_extended_data() + 2, 3);
    EXPECT_EQ(name(assigned), "-5:7:1:rst") << "by a part of itself";
    e = std::move(copy);
    EXPECT_EQ(name(e) + " " + name(copy), "-5:7:1:first -5:7:1");
}

TEST(Module_man, counts_ids_until_16_bits_are_used_and_hands_out_each_of_1000_nodes_once) {
    module_man mm;
    std::vector<short> ids(40000, 0);
    for (const auto& [extended, last, next] : {std::tuple(false, 32767, 1026), {true, -32768, -1}}) {
        const int left = std::abs(last - next) + 1;
        EXPECT_TRUE(mm.init_module_array(ids.data(), left + 1, extended) == -1 && ids[0] != next) << "none handed out";
        EXPECT_EQ(mm.init_module_array(ids.data(), left, extended), 0);
        EXPECT_TRUE(ids[0] == next && ids[static_cast<size_t>(left) - 1] == last);
        EXPECT_EQ(mm.init_module(ids.data(), extended), -1);
    }
    std::set<waiter_event_node*> nodes;
    while (waiter_event_node* n = mm.get_blank_event()) nodes.insert(n);
    EXPECT_TRUE(nodes.size() == 1000 && mm.num_free_events() == 0);
    for (waiter_event_node* n : nodes) mm.return_used_event(n);
    EXPECT_TRUE(mm.num_free_events() == 1000 && mm.least_free_events() == 0);
    EXPECT_EQ(run_child([&] { mm.return_used_event(*nodes.begin()); }).signal, SIGABRT) << "it is back already";
}

class Waiter : public testing::Test {
protected:
    Waiter() { w.init(&mm); }
    ~Waiter() override {
        w.flush_events();
        EXPECT_TRUE(mm.num_free_events() == 1000 && w.num_queued() == 0) << "every node comes back";
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
        {"a coalesced post joins an earlier one, whose data stays, and is delivered",
         {{e, no, no}, {other, coalesce, no}, {newer, coalesce, no}, {newer, coalesce, no}, {far, coalesce, no}}, 3,
         {"5:7:1", "5:7:1", "5:7:1", "5:8:1", "6:7:1"}},
        {"extended modules never coalesce",
         {{extended, coalesce, no}, {extended, coalesce, no}, {zero, coalesce, no}, {zero, coalesce, no}}, 4,
         {"-5:7:1", "-5:7:1", "0:7:1", "0:7:1"}},
        {"a unique post of a queued event is dropped whatever its data",
         {{e, no, no}, {newer, coalesce, unique}, {other, no, unique}}, 2, {"5:7:1", "5:8:1"}},
        {"events of extended modules are the same only with the same data",
         {{extended, no, unique}, {extended, no, unique}, {changed, no, unique}, {zero, no, unique}}, 3,
         {"-5:7:1", "-5:7:2", "0:7:1"}},
        {"a block is copied", {{with_block("a"), no, no}, {e, no, no}}, 2, {"-5:7:1:a", "5:7:1"}},
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

TEST_F(Waiter, compares_a_post_with_all_that_is_queued_and_starts_a_second_node_when_a_count_is_full) {
    w.send_event({5, 1, 0}, no, no);
    w.send_event({5, 2, 0}, no, no);
    EXPECT_EQ(take(w), "5:1:0");
    w.send_event({5, 3, 0}, no, no); // posted after the taker began on the others
    for (int id : {2, 3}) {
        w.send_event({5, id, 1}, no, unique);
        w.send_event({5, id, 2}, coalesce, no);
    }
    EXPECT_TRUE(w.num_queued() == 2 && w.longest_queue() == 2);
    for (const char* expected : {"5:2:0", "5:2:0", "5:3:0", "5:3:0", "nothing"}) EXPECT_EQ(take(w), expected);

    constexpr int posts = 65535 + 3;
    for (int i = 0; i < posts; ++i) ASSERT_EQ(w.send_event({5, 7, 1}, coalesce, no), 0);
    EXPECT_EQ(w.num_queued(), 2);
    for (int i = 0; i < posts; ++i) ASSERT_EQ(take(w), "5:7:1");
    EXPECT_EQ(take(w), "nothing");
}

TEST_F(Waiter, drops_posts_but_not_wake_ups_while_disabled_or_not_initialised) {
    waiter_descriptor never;
    EXPECT_TRUE(never.send_event({5, 7, 1}, no, no) == 0 && take(never) == "nothing");
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
}

TEST_F(Waiter, may_queue_half_of_what_is_free_and_still_merge_when_full) {
    waiter_descriptor second;
    second.init(&mm);
    const std::tuple<waiter_descriptor*, int, int> fills[] = {{&w, 334, 666}, {&second, 223, 443}};
    for (const auto& [waiter, room, free_then] : fills) {
        int fit = 0;
        while (waiter->send_event({5, fit, 0}, coalesce, no) == 0) ASSERT_LE(++fit, 1000);
        EXPECT_TRUE(fit == room && waiter->longest_queue() == room && mm.num_free_events() == free_then) << fit;
        EXPECT_EQ(waiter->send_event({5, 0, 0}, coalesce, no), 0) << "a merged post needs no node";
        EXPECT_EQ(waiter->send_event({5, 0, 0}, no, unique), 0) << "a dropped post needs no node";
    }
    EXPECT_EQ(mm.least_free_events(), 443);
    second.flush_events();

    // What counts is the queue as it is now, not as it was when the taker began on it.
    for (int i = 0; i < 335; ++i) take(w);
    for (int i = 0; i < 200; ++i) EXPECT_EQ(w.send_event({-5, i, 0}, no, no), 0);
    for (int i = 0; i < 199; ++i) take(w);
    std::vector<waiter_event_node*> others;
    while (mm.num_free_events() > 299) others.push_back(mm.get_blank_event());
    EXPECT_EQ(w.send_event({-5, 7, 0}, no, no), 0);
    for (waiter_event_node* n : others) mm.return_used_event(n);
}

TEST_F(Waiter, waits_until_the_deadline_rounded_up_to_10_ms) {
    using namespace std::chrono;
    Manual_clock clock;
    for (const auto& [ahead, waited] : {std::pair(-5000, 0), {0, 0}, {1, 10}, {10, 10}, {11, 20}}) {
        bool close = false; // a loaded machine may wake us late, but not always; never early
        waiter_event out(9, 9, 9);
        for (int attempt = 0; attempt < 100 && !close; ++attempt) {
            const auto start = steady_clock::now();
            ASSERT_EQ(w.get_event(&out, Atime::from_now(ahead)), -1);
            const auto took = steady_clock::now() - start;
            ASSERT_GE(took, milliseconds(waited));
            close = took < milliseconds(waited + 9);
        }
        EXPECT_TRUE(close && name(out) == "9:9:9") << ahead;
    }
}

/// A Qt object woken by mirrored posts.
class Mirror : public QObject {
public:
    static constexpr QEvent::Type type = QEvent::Type(QEvent::User + 7);
    int woken = 0;
    bool event(QEvent* e) override {
        woken += e->type() == type;
        return true;
    }
};

TEST_F(Waiter, meets_the_qt_application) {
    int argc = 0;
    QCoreApplication app(argc, nullptr);
    waiter_event wrong = with_block("block");
    wrong.module_id = 5;
    EXPECT_EQ(debug_text([&] {
                  QTimer::singleShot(0, [&] {
                      w.send_event(wrong, no, no); // no complaint
                      for (int i = 0; i < 2; ++i) w.send_event(wrong, coalesce, no);
                  });
                  EXPECT_EQ(app.exec(), -147);
              }),
              "ERROR: Event expects extended module id\nERROR: Event expects extended module id\n");
    for (int i = 0; i < 3; ++i) EXPECT_EQ(take(w), "5:7:1:block") << "the posts go on";

    Mirror mirror;
    w.init(&mm, &mirror, Mirror::type);
    const auto wakes = [&](auto post) {
        post();
        QCoreApplication::sendPostedEvents(&mirror);
        return std::exchange(mirror.woken, 0);
    };
    EXPECT_EQ(wakes([&] { w.send_event({5, 7, 1}, no, no); }), 1);
    EXPECT_EQ(wakes([&] { w.send_event({5, 7, 1}, coalesce, no); }), 1) << "a merged post";
    EXPECT_EQ(wakes([&] { w.send_event({5, 7, 1}, no, unique); }), 0) << "a dropped duplicate";
    EXPECT_EQ(wakes([&] { w.send_anonymous_event(); }), 1);
    EXPECT_EQ(wakes([&] { w.set_enabled(false), w.send_event({5, 8, 1}, no, no); }), 0);
    EXPECT_EQ(wakes([&] { w.deinit(), w.send_anonymous_event(); }), 0);
}

TEST_F(Waiter, loses_and_doubles_nothing_with_four_posters) {
    constexpr int posts = 8000;
    std::atomic<int> newest{0};
    const auto post = [&](const waiter_event& e, bool merge, bool once) { // until there is room
        while (w.send_event(e, merge, once) != 0) std::this_thread::yield();
    };
    const std::function<void(int)> deeds[] = {[&](int i) {
                                                  post({5, i % 2, 0}, coalesce, no);
                                              },
                                              [&](int i) {
                                                  post({-6, 0, event_word_t(i)}, no, no);
                                              },
                                              [&](int i) {
                                                  newest = i, post({7, 0, 0}, no, unique);
                                              },
                                              [&](int) { w.send_anonymous_event(); }};
    std::vector<std::thread> posters;
    for (const auto& deed : deeds) {
        posters.emplace_back([&deed] {
            for (int i = 1; i <= posts; ++i) deed(i);
        });
    }
    int merged[2] = {0, 0}, plain = 0, seen_newest = 0, anonymous = 0;
    waiter_event e;
    const auto account = [&] {
        if (e.module_id == 5) ++merged[e.id];
        if (e.module_id == -6) plain = e.data == event_word_t(plain + 1) ? plain + 1 : -posts; // in order
        if (e.module_id == 7) seen_newest = newest; // a dropped duplicate has a delivery still to come
        if (e.module_id == 1) ++anonymous;
    };
    const auto all = [&] {
        return merged[0] + merged[1] == posts && plain == posts && seen_newest == posts && anonymous == posts;
    };
    while (!all() && w.get_event(&e, Atime::from_now(20000)) == 0) account();
    for (std::thread& p : posters) p.join();
    while (w.get_event(&e, Atime::now()) == 0) account();
    EXPECT_TRUE(all()) << merged[0] << " " << merged[1] << " " << plain << " " << seen_newest << " " << anonymous;
}

TEST(Waiter_tokens, neither_get_lost_nor_double_when_given_as_the_wait_runs_out) {
    using namespace std::chrono;
    waiter_tokens tokens;
    for (int round = 1; round <= 300; ++round) {
        std::atomic<bool> started{false};
        std::thread giver([&] {
            while (!started) std::this_thread::yield();
            // Around the end of the taker's millisecond, a little later each time.
            const auto at = steady_clock::now() + microseconds(980 + round % 150);
            while (steady_clock::now() < at) {
            }
            tokens.give();
        });
        started = true;
        const bool in_time = tokens.take(1);
        giver.join();
        EXPECT_NE(tokens.take(0), in_time) << "what came too late is there for the next";
    }
}

TEST(Waiter_list, keeps_up_to_16_waiters_and_posts_to_each) {
    module_man mm;
    waiter_descriptor waiters[17];
    waiter_list list;
    EXPECT_TRUE(list.module_id() == 0 && list.init(mm) == 0 && list.add(nullptr) == -1);
    for (waiter_descriptor& w : waiters) EXPECT_TRUE(w.init(&mm) == 0 && list.add(&w) == (&w == &waiters[16] ? -1 : 0));
    EXPECT_TRUE(list.remove(&waiters[16]) == -1 && list.remove(&waiters[3]) == 0 && list.remove(&waiters[3]) == -1);
    EXPECT_TRUE(list.add(&waiters[4]) == -1 && list.size() == 15 && list.add(&waiters[16]) == 0);
    for (int i = 0; i < 2; ++i) list.send({list.module_id(), 2, 3}, coalesce, no);
    for (waiter_descriptor& w : waiters) {
        for (int i = 0; i < (&w == &waiters[3] ? 0 : 2); ++i) EXPECT_EQ(take(w), "1026:2:3");
        EXPECT_EQ(take(w), "nothing");
    }
}

} // namespace
