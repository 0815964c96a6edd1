// SPDX-License-Identifier: MIT
// Threads register, take back and signal ranges of one block at random, while other threads take the events: each
// registration is woken exactly as often as a model says that looks at every byte. With --nightly a hundred times as
// long, from three seeds.
#include "glue/cds/CDS_events.h"
#include "glue/diner/Diner_info_list.h"
#include "glue/diner/waiter_descriptor.h"
#include "support/test.h"

namespace {

constexpr int block_size = 32, num_waiters = 3, num_users = 3, most_registrations = 60;
/// When a user goes on. A waiter whose taker stands still must have room for what comes then, or events are refused: of
/// a fresh pool it gets 334.
constexpr int most_in_queues = 100;
static_assert(most_in_queues + num_users * most_registrations <= 334);

struct Registration {
    int waiter, offset, length, value;
};

struct Store {
    explicit Store(unsigned s) : seed(s) {
        for (int w = 0; w < num_waiters; ++w) waiters[w].init(&Diner_info_list::get());
    }

    /// Take events.
    void take(int w) {
        waiter_event e;
        while (!over) {
            if (waiters[w].get_event(&e, Atime::from_now(20)) != 0) continue;
            if (!head.is_event(e, CDS::reg_value_direct)) ++strange;
            ++got[w][size_t(e.data) % most_values];
            ++handled;
        }
    }
    /// A range of 2^n bytes at a multiple of that: two of them nest or are disjoint.
    void pick_range(std::mt19937& random, int& offset, int& length) const {
        length = 1 << random() % 6;
        offset = int(random() % unsigned(block_size / length)) * length;
    }
    void change_registrations(std::mt19937& random) {
        if (random() % 2 && !registrations.empty()) {
            const size_t i = random() % registrations.size();
            const Registration r = registrations[i];
            EXPECT_EQ(head.event_unregister(&waiters[r.waiter], r.offset, r.length, CDS::reg_value_direct, r.value,
                                            nullptr, nullptr),
                      0);
            registrations.erase(registrations.begin() + long(i));
        } else if (registrations.size() < most_registrations) {
            Registration r{int(random() % num_waiters), 0, 0, int(random() % most_values)};
            pick_range(random, r.offset, r.length);
            EXPECT_EQ(head.event_register(&waiters[r.waiter], r.offset, r.length, CDS::reg_value_direct, r.value,
                                          nullptr, nullptr),
                      0);
            registrations.push_back(r);
        }
    }
    void signal(std::mt19937& random) {
        int offset, length;
        pick_range(random, offset, length);
        unsigned char before[block_size];
        memcpy(before, block, sizeof block);
        for (unsigned n = random() % 3; n > 0; --n) ++block[unsigned(offset) + random() % unsigned(length)];
        const bool copies = random() % 2;
        for (const Registration& r : registrations) {
            bool woken = false;
            for (int i = std::max(offset, r.offset); i < std::min(offset + length, r.offset + r.length); ++i)
                woken |= !copies || block[i] != before[i];
            expected[r.waiter][r.value] += woken;
            sent += woken;
        }
        head.event_signal(copies ? block + offset : nullptr, copies ? before + offset : nullptr, offset, length,
                          nullptr);
    }
    void use(unsigned thread, int steps) {
        std::mt19937 random(seed * 10 + thread);
        for (int i = 0; i < steps; ++i) {
            const auto room = [this] { return sent - handled < most_in_queues; };
            if (!room() && !wait_until(room)) return;
            const std::lock_guard<Mutex> guard(head);
            random() % 4 ? signal(random) : change_registrations(random);
        }
    }

    static constexpr int most_values = 40;
    const unsigned seed;
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
        Store store(seed);
        std::vector<std::thread> takers, users;
        for (int w = 0; w < num_waiters; ++w) takers.emplace_back([&store, w] { store.take(w); });
        for (unsigned k = 0; k < num_users; ++k)
            users.emplace_back([&store, k] { store.use(k, nightly() ? 1000000 : 10000); });
        for (auto& t : users) t.join();
        EXPECT_TRUE(wait_until([&] { return store.handled == store.sent; })) << "seed " << seed;
        store.over = true;
        for (auto& t : takers) t.join();
        EXPECT_EQ(store.strange, 0) << "seed " << seed;
        for (int w = 0; w < num_waiters; ++w)
            for (int v = 0; v < Store::most_values; ++v)
                ASSERT_EQ(store.got[w][v], store.expected[w][v]) << "seed " << seed << ", waiter " << w << ", " << v;
        printf("seed %u: %ld cases of wake-ups\n", seed, store.sent.load());
        const std::lock_guard<Mutex> guard(store.head);
        for (const Registration& r : store.registrations)
            store.head.event_unregister(&store.waiters[r.waiter], r.offset, r.length, CDS::reg_value_direct, r.value,
                                        nullptr, nullptr);
    }
}

} // namespace
