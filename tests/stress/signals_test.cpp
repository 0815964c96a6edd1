// SPDX-License-Identifier: MIT
// Threads register, take back and signal ranges of one block at random, while other threads take the events: each
// registration is woken exactly as often as a model says that looks at every byte. With --nightly a hundred times as
// long, from three seeds.
#include "glue/cds/CDS_events.h"
#include "glue/diner/Diner_info_list.h"
#include "glue/diner/waiter_descriptor.h"
#include "support/stress.h"
#include "support/test.h"

namespace {

constexpr int block_size = 32, num_waiters = 3, num_users = 3, most_registrations = 60, most_values = 40;
/// When a user goes on. A waiter whose taker stands still must have room for what comes then, or events are refused: of
/// a fresh pool it gets 334.
constexpr int most_in_queues = 100;
static_assert(most_in_queues + num_users * most_registrations <= 334);

/// 2^n bytes at a multiple of that: two of them nest or are disjoint.
struct Range {
    explicit Range(Random& random) : length(1 << random(6)), offset(random(block_size / length) * length) {}
    int length, offset;
};

struct Registration : Range {
    explicit Registration(Random& random) : Range(random), waiter(random(num_waiters)), value(random(most_values)) {}
    int waiter, value;
};

struct Store {
    Store() {
        for (auto& w : waiters) w.init(&Diner_info_list::get());
    }
    ~Store() {
        const std::lock_guard<Mutex> guard(head);
        while (!registrations.empty()) take_back(registrations.size() - 1);
    }
    /// Take events.
    void take(int w) {
        waiter_event e;
        while (!over) {
            if (waiters[w].get_event(&e, Atime::from_now(20)) != 0) continue;
            strange += !head.is_event(e, CDS::reg_value_direct);
            ++got[w][size_t(e.data) % most_values];
            ++handled;
        }
    }
    void add(const Registration& r) {
        EXPECT_EQ(head.event_register(&waiters[r.waiter], r.offset, r.length, CDS::reg_value_direct, r.value, nullptr,
                                      nullptr),
                  0);
        registrations.push_back(r);
    }
    void take_back(size_t i) {
        const Registration& r = registrations[i];
        EXPECT_EQ(head.event_unregister(&waiters[r.waiter], r.offset, r.length, CDS::reg_value_direct, r.value, nullptr,
                                        nullptr),
                  0);
        registrations.erase(registrations.begin() + long(i));
    }
    void signal(Random& random) {
        const Range s(random);
        unsigned char before[block_size];
        memcpy(before, block, sizeof block);
        for (int n = random(3); n > 0; --n) ++block[s.offset + random(s.length)];
        const bool copies = random(2);
        for (const Registration& r : registrations) {
            bool woken = false;
            for (int i = std::max(s.offset, r.offset); i < std::min(s.offset + s.length, r.offset + r.length); ++i)
                woken |= !copies || block[i] != before[i];
            expected[r.waiter][r.value] += woken;
            sent += woken;
        }
        head.event_signal(copies ? block + s.offset : nullptr, copies ? before + s.offset : nullptr, s.offset, s.length,
                          nullptr);
    }
    void use(unsigned seed) {
        Random random(seed);
        for (int i = nightly() ? 1000000 : 10000; i > 0; --i) {
            if (!wait_until([this] { return sent - handled < most_in_queues; })) return;
            const std::lock_guard<Mutex> guard(head);
            if (random(4))
                signal(random);
            else if (random(2) && !registrations.empty())
                take_back(random(registrations.size()));
            else if (registrations.size() < most_registrations)
                add(Registration(random));
        }
    }

    CDS::Head head{&Diner_info_list::get(), 0};
    waiter_descriptor waiters[num_waiters];
    unsigned char block[block_size] = {};
    std::vector<Registration> registrations;
    long expected[num_waiters][most_values] = {};
    std::atomic<long> got[num_waiters][most_values] = {};
    std::atomic<long> sent{0}, handled{0}, strange{0};
    std::atomic<bool> over{false};
};

TEST(Signals, wake_whom_the_model_says) {
    for (unsigned seed = 1; seed <= (nightly() ? 3 : 1); ++seed) {
        SCOPED_TRACE(seed);
        Store store;
        Threads takers, users;
        for (int w = 0; w < num_waiters; ++w) takers.emplace_back([&store, w] { store.take(w); });
        for (unsigned k = 0; k < num_users; ++k) users.emplace_back([&store, k, seed] { store.use(seed * 7 + k); });
        users.join();
        EXPECT_TRUE(wait_until([&] { return store.handled == store.sent; }));
        store.over = true;
        takers.join();
        EXPECT_EQ(store.strange, 0);
        for (int w = 0; w < num_waiters; ++w)
            for (int v = 0; v < most_values; ++v)
                ASSERT_EQ(store.got[w][v], store.expected[w][v]) << "waiter " << w << ", " << v;
        printf("seed %u: %ld cases of wake-ups\n", seed, store.sent.load());
    }
}

} // namespace
