// SPDX-License-Identifier: MIT
// Threads use diners at random: they post, submit and remove timeouts, and replace a diner by another
// one. No event is handled twice or unless accepted, no timeout runs that was removed, none is forgotten, and nothing
// is left of the diners. With --nightly a hundred times as long, from three seeds.
#include "support/Test_diner.h"
#include "support/test.h"
#include <shared_mutex>

namespace {

constexpr int num_diners = 5, num_timeouts = 6, num_threads = 4, num_numbers = 512;
std::atomic<int> violations{0}, posts{0}, runs{0}, diners{0};

/// What it does is checked by itself, under its lock.
class Player : public Test_diner<> {
public:
    Player() {
        on_event = [this](waiter_event& e) {
            if (--accepted[e.id % num_numbers] < 0) ++violations;
            if (e.id % 8 == 0) submit(e.id % num_timeouts, 0, 0);
        };
        on_timeout = [this](Timeout& t) {
            ++runs;
            const auto i = size_t(&t - all);
            if (!wanted[i]) ++violations;
            if (t.period == 0) wanted[i] = false;
        };
        begin();
        ++diners;
    }
    ~Player() override { terminate(true); }

    void post(int number) {
        ++accepted[number % num_numbers];
        if (waiter.send_event(waiter_event(2000, number, 0)) != 0) --accepted[number % num_numbers];
        ++posts;
    }
    /// Lock held.
    void submit(int i, int ms, int period) {
        wanted[i] = true;
        all[i].period = period;
        if (submitted(all[i]) ? reschedule(i, ms) : submit_timeout(all[i], ms)) ++violations;
    }
    int reschedule(int i, int ms) {
        remove_timeout(all[i]);
        return submit_timeout(all[i], ms);
    }
    /// Lock held.
    void remove(int i) {
        wanted[i] = false;
        remove_timeout(all[i]);
    }
    /// What is to run once runs; periods go on for ever.
    bool runs_all() {
        return wait_until([this] {
            const Locked locked(*this);
            for (int i = 0; i < num_timeouts; ++i)
                if (wanted[i] && all[i].period == 0) return false;
            return true;
        });
    }
    struct Locked {
        explicit Locked(Player& p) : player(p) { player.lock(-1); }
        ~Locked() { player.unlock(); }
        Player& player;
    };

private:
    Timeout all[num_timeouts];
    bool wanted[num_timeouts] = {};
    std::atomic<int> accepted[num_numbers] = {};
};

struct Place {
    std::shared_mutex mutex; ///< alone: who replaces the diner
    std::unique_ptr<Player> player = std::make_unique<Player>();
};

void use(Place (&places)[num_diners], unsigned seed, int steps) {
    std::mt19937 random(seed);
    for (int n = 0; n < steps; ++n) {
        Place& place = places[random() % num_diners];
        const int i = int(random() % num_timeouts), what = int(random() % 1000);
        if (what < 2) {
            const std::lock_guard<std::shared_mutex> alone(place.mutex);
            place.player.reset();
            place.player = std::make_unique<Player>();
            continue;
        }
        const std::shared_lock<std::shared_mutex> shared(place.mutex);
        Player& p = *place.player;
        if (what < 700) {
            p.post(int(random()) & 0xFFFF);
            if (what < 20) std::this_thread::yield();
        } else {
            const Player::Locked locked(p);
            what < 900 ? p.submit(i, int(random() % 4), int(random() % 2)) : p.remove(i);
        }
    }
}

TEST(Random_use, of_diners_posts_and_timeouts) {
    for (unsigned seed = 1; seed <= (nightly() ? 3 : 1); ++seed) {
        const int free_before = Diner_info_list::get().num_free_events();
        {
            const Capture quiet(stderr);
            Place places[num_diners];
            std::vector<std::thread> threads;
            for (unsigned k = 0; k < num_threads; ++k)
                threads.emplace_back([&, k] { use(places, seed * 100 + k, nightly() ? 3000000 : 30000); });
            for (auto& t : threads) t.join();
            for (Place& place : places) EXPECT_TRUE(place.player->runs_all()) << "seed " << seed;
        }
        EXPECT_EQ(violations, 0) << "seed " << seed;
        EXPECT_EQ(Diner_info_list::get().num_free_events(), free_before) << "seed " << seed;
        printf("seed %u: %d posts, %d timeouts, %d diners\n", seed, posts.load(), runs.load(), diners.load());
    }
}

} // namespace
