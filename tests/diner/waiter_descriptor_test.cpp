// SPDX-License-Identifier: MIT
#include "NV_store/Settings_fixture.h"
#include "glue/cds/CDS_events.h"
#include "glue/data_stream/Virtual_pair_data_stream.h"
#include "glue/diner/waiter_list.h"
#include "support/test.h"
#include <QCoreApplication>
#include <QTimer>

namespace {

constexpr bool coalesce = true, no = false;

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

/// Takes what comes within `ms`; "nothing" when nothing does, which leaves the caller's event alone.
std::string take(waiter_descriptor& w, int ms = 0) {
    waiter_event e = with_block("stale");
    if (w.get_event(&e, Atime::from_now(ms)) == 0) return name(e);
    return name(e) == "-5:7:1:stale" ? "nothing" : "changed";
}

TEST(Waiter_event, owns_its_block) {
    waiter_event e = with_block("first"), copy = e, assigned;
    const std::tuple<const char*, unsigned, int, const char*> blocks[] = {{"0123456789", 10, 1, "-5:7:1:0123456789"},
                                                                          {"x", 0, 0, "-5:7:1"},
                                                                          {"abc", 2, 1, "-5:7:1:ab"},
                                                                          {nullptr, 5, 0, "-5:7:1"},
                                                                          {"abc", UINT_MAX - 6, 0, "-5:7:1"},
                                                                          {"abc", 3, 1, "-5:7:1:abc"}};
    for (const auto& [data, n, taken, now] : blocks)
        EXPECT_VALUES(texts(taken, now), e.set_extended_data(bytes(data), n), name(e));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(e.extended), 7), std::string("\3\0\0\0abc", 7)) << "32-bit length";
    assigned = copy;
    assigned = static_cast<waiter_event&>(assigned);
    assigned.set_extended_data(assigned.get_extended_data() + 2, 3); // a part of itself
    e = std::move(copy);
    EXPECT_VALUES("-5:7:1:rst -5:7:1:first -5:7:1", name(assigned), name(e), name(copy));
}

TEST(Module_man, counts_ids_until_16_bits_are_used_and_hands_out_each_of_1000_nodes_once) {
    module_man mm;
    std::vector<short> ids(40000, 0);
    for (const auto& [extended, next, last] : {std::tuple(false, 1026, 32767), {true, -1, -32768}}) {
        const int left = std::abs(last - next) + 1;
        short& first = ids[0] = 0;
        EXPECT_VALUES("-1 0", mm.init_module_array(&first, left + 1, extended), first) << "none handed out";
        EXPECT_VALUES(texts(0, next, last), mm.init_module_array(&first, left, extended), first, ids[size_t(left) - 1]);
        EXPECT_EQ(mm.init_module(&first, extended), -1);
    }
    std::set<waiter_event_node*> nodes;
    while (waiter_event_node* n = mm.get_blank_event()) nodes.insert(n);
    EXPECT_VALUES("1000 0", nodes.size(), mm.num_free_events());
    for (waiter_event_node* n : nodes) mm.return_used_event(n);
    EXPECT_VALUES("1000 0", mm.num_free_events(), mm.least_free_events());
    EXPECT_EQ(run_child([&] { mm.return_used_event(*nodes.begin()); }).signal, SIGABRT) << "it is back already";
}

class Waiter : public testing::Test {
protected:
    Waiter() { w.init(&mm); }
    ~Waiter() override {
        run("let");
        w.flush_events();
        EXPECT_VALUES("1000 0", mm.num_free_events(), w.num_queued()) << "every node comes back";
    }
    /// Posts such as "5:7:1 c5:7:2 cu-6:7:1": module, id and data; c coalesced, u unique. Other calls: wake, off, on,
    /// end, take; hold a free node, let them go. "9*" repeats, with a new id each time unless coalesced. The posts
    /// refused.
    int run(const std::string& calls) {
        int refused = 0;
        std::istringstream in(calls);
        for (std::string c; in >> c;) {
            const size_t star = c.find('*') + 1;
            const std::string word = c.substr(star);
            waiter_event e;
            char colon;
            std::istringstream post(word.substr(word.find_first_not_of("cu")));
            const bool is_post(post >> e.module_id >> colon >> e.id >> colon >> e.data);
            for (int n = star ? std::stoi(c) : 1; n > 0; --n, e.id += word[0] != 'c') {
                if (word == "wake") w.send_anonymous_event();
                if (word == "take") take(w);
                if (word == "on" || word == "off") w.set_enabled(word == "on");
                if (word == "end") w.deinit();
                if (word == "hold") held.push_back(mm.get_blank_event());
                if (is_post) refused -= w.send_event(e, word[0] == 'c', word.find('u') < word.size());
            }
            if (word != "let") continue;
            for (waiter_event_node* node : held) mm.return_used_event(node);
            held.clear();
        }
        return refused;
    }
    std::string take_all() {
        std::string all;
        for (std::string next; (next = take(w)) != "nothing";) all += next + " ";
        return all;
    }
    module_man mm;
    waiter_descriptor w;
    std::vector<waiter_event_node*> held;
};

TEST_F(Waiter, queues_merges_drops_or_refuses_a_post) {
    const std::tuple<const char*, int, int, const char*> cases[] = {
        // calls, posts refused, most nodes, deliveries then
        {"5:7:1 5:7:2", 0, 2, "5:7:1 5:7:2 "},
        // A coalesced post joins an earlier one, whose data stays; those of extended modules never do.
        {"5:7:1 c5:8:1 c5:7:2 c5:7:2 c6:7:1", 0, 3, "5:7:1 5:7:1 5:7:1 5:8:1 6:7:1 "},
        {"c-5:7:1 c-5:7:1 c0:7:1 c0:7:1", 0, 4, "-5:7:1 -5:7:1 0:7:1 0:7:1 "},
        {"65538*c5:7:1 65537*take", 0, 2, "5:7:1 "}, // a full count
        // A unique post of what is queued is dropped, whatever its data unless the module is extended.
        {"5:7:1 cu5:7:2 u5:8:1", 0, 2, "5:7:1 5:8:1 "},
        {"u-5:7:1 u-5:7:1 u-5:7:2 u0:7:1", 0, 3, "-5:7:1 -5:7:2 0:7:1 "},
        {"5:7:1 c5:7:1 take u5:7:2 take u5:7:3", 0, 1, "5:7:3 "}, // a delivery is still to come, or it is queued
        // They are compared with all that is queued, before and after the taker began on it.
        {"5:1:0 5:2:0 take 5:3:0 u5:2:1 c5:2:2 u5:3:1 c5:3:2", 0, 2, "5:2:0 5:2:0 5:3:0 5:3:0 "},
        // It may queue half of what is free, as the queue is now, and still merge when full.
        {"336*5:0:0 c5:0:0 u5:0:0 335*take", 2, 334, ""},
        {"334*hold 224*-5:0:0 222*take let", 1, 223, "-5:222:0 "},
        {"334*5:0:0 334*take 200*-5:0:0 199*take 700*hold -5:7:0 let", 0, 334, "-5:199:0 -5:7:0 "},
        // Wake-ups count also while posts are dropped.
        {"wake 5:7:1 off wake 5:7:2 on 5:7:3 end 5:7:4", 0, 2, "5:7:1 5:7:3 1:1:0 1:1:0 "},
    };
    for (const auto& [calls, refused, most, deliveries] : cases) {
        w.reset_longest_queue();
        EXPECT_VALUES(texts(refused, most), run(calls), w.longest_queue()) << calls;
        EXPECT_EQ(mm.num_free_events(), 1000 - w.num_queued()) << calls;
        EXPECT_EQ(take_all(), deliveries) << calls;
    }
    EXPECT_EQ(mm.least_free_events(), 298);
    waiter_descriptor never;
    EXPECT_VALUES("0 nothing", never.send_event({5, 7, 1}), take(never));
}

TEST_F(Waiter, waits_until_the_deadline_rounded_up_to_10_ms) {
    using namespace std::chrono;
    Manual_clock clock;
    for (const auto& [ahead, waited] : {std::pair(-5000, 0), {0, 0}, {1, 10}, {10, 10}, {11, 20}}) {
        auto shortest = nanoseconds(1s); // a loaded machine may wake us late, but not always; never early
        for (int attempt = 0; attempt < 100 && shortest >= milliseconds(waited + 9); ++attempt) {
            const auto start = steady_clock::now();
            EXPECT_EQ(take(w, ahead), "nothing");
            shortest = std::min<nanoseconds>(shortest, steady_clock::now() - start);
        }
        EXPECT_VALUES("true true", shortest >= milliseconds(waited), shortest < milliseconds(waited + 9)) << ahead;
    }
}

/// A Qt object woken by mirrored posts.
struct Mirror : QObject {
    static constexpr QEvent::Type type = QEvent::Type(QEvent::User + 7);
    int woken = 0;
    bool event(QEvent* e) override { return woken += e->type() == type; }
};

TEST_F(Waiter, meets_the_qt_application) {
    int argc = 0;
    QCoreApplication app(argc, nullptr);
    waiter_event wrong = with_block("block");
    wrong.module_id = 5;
    const std::string complaint = "ERROR: Event expects extended module id\n";
    QTimer::singleShot(0, [&] {
        for (bool c : {no, coalesce, coalesce}) w.send_event(wrong, c, no);
    });
    EXPECT_EQ(debug_text([&] { EXPECT_EQ(app.exec(), -147); }), complaint + complaint) << "of the coalesced ones";
    EXPECT_EQ(take_all(), "5:7:1:block 5:7:1:block 5:7:1:block ") << "the posts go on";
    Mirror mirror;
    w.init(&mm, &mirror, Mirror::type);
    for (const auto& [calls, woken] :
         {std::pair("5:7:1 c5:7:1", 2), {"u5:7:1", 0}, {"wake", 1}, {"off 5:8:1", 0}, {"end wake", 0}}) {
        run(calls);
        QCoreApplication::sendPostedEvents(&mirror);
        EXPECT_EQ(std::exchange(mirror.woken, 0), woken) << calls;
    }
}

TEST_F(Waiter, keeps_nothing_that_was_posted_before_it_was_disabled_and_flushed) {
    static std::atomic<int> readings;
    Util::set_wall_clock([](struct timespec& now) { now = {1000 - ++readings, 0}; }); // it is being set back
    std::atomic<int> posts{0};
    std::atomic<bool> over{false};
    std::thread poster([&] {
        for (; !over; ++posts) w.send_event({5, 7, 1}, posts % 2, no);
    });
    int late = 0;
    for (int round = 0; round < 3000; ++round) {
        w.set_enabled(true);
        for (const int before = posts; posts < before + round % 3;) std::this_thread::yield();
        w.set_enabled(false);
        w.flush_events();
        late += w.num_queued();
    }
    over = true;
    poster.join();
    Util::set_wall_clock(nullptr);
    EXPECT_VALUES("0 nothing 0", late, take(w), readings) << "posts whose tokens are still to come";
}

TEST(Waiter_tokens, neither_get_lost_nor_double_when_given_as_the_wait_runs_out) {
    waiter_tokens tokens;
    for (int round = 0; round < 300; ++round) {
        // Around the end of the taker's millisecond, a little later each time.
        const auto at = std::chrono::steady_clock::now() + std::chrono::microseconds(980 + round);
        std::atomic<bool> given{false};
        std::thread giver([&] {
            while (std::chrono::steady_clock::now() < at) {
            }
            given = true;
            tokens.give();
        });
        const bool in_time = tokens.take(1) && given; // what an earlier round left over comes too early
        giver.join();
        EXPECT_NE(tokens.take(0), in_time) << "what came too late is there for the next";
    }
}

TEST(Waiter_list, stream_range_and_setting_tell_a_waiter_and_forget_one_that_dies_with_a_line) {
    module_man modules;
    Mutex lock;
    waiter_list list(lock);
    Virtual_pair_data_stream pair(&modules);
    CDS::Head head(&modules, 0);
    CDS::Access_base range(&head, 0, 4);
    Settings tree(&modules);
    const auto tell = [&] {
        list.send({2000, 1, 0}, waiter_descriptor::merge_duplicates);
        pair.a.printf("x"), pair.b.printf("x"), pair.a.drop(1);
        const std::lock_guard<Mutex> guard(head);
        head.event_signal(nullptr, nullptr, 0, 4, nullptr);
        tree.signal_all(&tree);
    };
    for (int round = 0; round < 2; ++round) {
        auto w = std::make_unique<waiter_descriptor>(); // of the heap, where its memory is watched
        w->init(&modules);
        list.add(w.get()), pair.b.reg_rx_waiter(w.get(), false), pair.b.reg_tx_waiter(w.get(), false);
        head.lock(), range.reg(w.get(), 1), head.unlock();
        tree.speed.register_waiter(w.get(), 1, false), tree.wheel.offset.register_waiter(w.get(), 1, false);
        tell();
        EXPECT_EQ(w->num_queued(), 6) << "each has told it";
        const std::string line =
            text_of("Waiter %p dies while it is registered with streams 3, ranges 1, settings 2\n", w.get());
        EXPECT_EQ(debug_text([&] { w.reset(); }), line);
        tell();
    }
}

TEST(Waiter_list, of_up_to_16_tells_each_and_nothing_else_when_places_move_up) {
    module_man modules;
    std::optional<waiter_descriptor> waiters[18];
    Mutex lock;
    waiter_list list(lock);
    EXPECT_VALUES("0 0 -1", list.module_id(), list.init(modules), list.add(nullptr));
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
        for (int n = 0; n < 2; ++n) list.send({2000, 1, 0}, waiter_descriptor::merge_duplicates);
        for (size_t k : alive) {
            ASSERT_EQ(waiters[k]->num_queued(), kept.count(k)) << k << " in step " << step;
            waiters[k]->flush_events();
        }
    }
}

} // namespace
