// SPDX-License-Identifier: MIT
#include "support/test.h"
#include "util/Debug_base.h"
#include "util/Lock_order.h"
#include "util/Mutex.h"
#include "util/Semaphore.h"
#include <QThread>

namespace {

TEST(Mutex, announces_the_end_of_a_long_wait_only) {
    Mutex mutex;
    Capture err(stderr);
    const auto in_turn = [&](int rounds) {
        for (int i = 0; i < rounds; ++i) {
            mutex.lock();
            EXPECT_VALUES("true false", mutex.is_locked(), mutex.try_lock(0)) << "not recursive";
            std::this_thread::yield(); // longer than the other spins
            mutex.unlock();
        }
    };
    std::thread other(in_turn, 1000);
    in_turn(1000);
    other.join();
    mutex.lock();
    std::thread late(in_turn, 1);
    EXPECT_TRUE(wait_until([] { return lseek(STDERR_FILENO, 0, SEEK_END) > 0; })); // a round has passed
    mutex.unlock();
    late.join();
    EXPECT_EQ(mutex.status(), Mutex::status_free);
    const std::string text = err.text(), me = text_of("%p ", static_cast<void*>(&mutex));
    const auto last_behind = [&](const std::string& word) {
        return std::stoi(text.substr(text.rfind(word) + word.size()));
    };
    EXPECT_EQ(last_behind("avoided " + me), last_behind("assumed " + me) + 1) << text;
    EXPECT_EQ(text.find("avoided " + me + "0\n"), std::string::npos) << text;
}

TEST(Mutex, a_wrong_state_is_reported_and_fatal_unless_switched_off) {
    Mutex mutex;
    const auto report = text_of("Bad mutex status: 0, wanted: 1 %p (nil)", static_cast<void*>(&mutex));
    const std::tuple<int, int, std::string> rows[] = {// an active category, wanted status of a free mutex, how it ends
                                                      {0, Mutex::status_any, "0 "},
                                                      {0, Mutex::status_free, "0 "},
                                                      {_JDB::jdb_mutex_quiet, Mutex::status_mine, "signal 6 "},
                                                      {_JDB::jdb_mutex_lenient, Mutex::status_mine, "0 " + report}};
    for (const auto& [category, wanted, end] : rows)
        EXPECT_EQ(run_child([&, c = category, w = wanted] {
                      Debug_filter::add_filter(_JDB::jdb_enum(c)), mutex.check(w);
                  }).end(),
                  end);
}

TEST(Mutex, a_deadlock_ends_the_process_after_21_rounds) {
    Mutex mutex;
    void *const m = &mutex, *const me = QThread::currentThreadId();
    Child_result r;
    const auto lock_twice = [&] { mutex.lock(), mutex.lock(); };
    const auto start = std::chrono::steady_clock::now();
    const int stalled =
        in_child([&] { return hold(), lock_twice(), 0; }, [&](pid_t) { r = run_child(lock_twice); }, 60);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(10400));
    std::string all;
    for (int i = 0; i <= 20; ++i) all += text_of("Deadlock assumed %p %d (owner %p, this_thread %p)\n", m, i, me, me);
    EXPECT_VALUES("signal 6 " + all, r.end());
    EXPECT_EQ(stalled, -SIGABRT) << "that it cannot tell must not keep it waiting";
}

TEST(Semaphore, waits_in_ticks_of_10_ms_and_limited_to_one_token_never_loses_the_last) {
    Semaphore tokens(1), limited(0, true);
    tokens.release();
    EXPECT_VALUES("true true", tokens.try_acquire(INT_MAX), tokens.try_acquire());
    const auto start = std::chrono::steady_clock::now();
    EXPECT_VALUES("false false", tokens.try_acquire(0), tokens.try_acquire(4));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(39));
    for (int round = 0; round < 2000; ++round) { // two releases at the same moment
        std::atomic<bool> ready{false};
        std::thread other([&] { ready = true, limited.release(), tokens.release(); });
        EXPECT_TRUE(round > 1 || tokens.try_acquire(round ? -1 : INT_MIN)) << "without end";
        while (!ready) std::this_thread::yield();
        limited.release();
        other.join();
        ASSERT_VALUES("true false", limited.try_acquire(), limited.try_acquire()) << round;
    }
}

TEST(Lock_order, is_wrong_where_a_wait_closes_a_circle) {
    // A thread takes what small letters name, releases what capitals name and destroys b at an x. What is left of the
    // script from where the order is found wrong.
    const std::pair<const char*, const char*> cases[] = {
        {"abBAabBA", ""},     {"abBAbaAB", "aAB"},     {"abABbaAB", "aAB"},
        {"abBAbcCBacCA", ""}, {"abBAbcCBcaAC", "aAC"}, {"abAcBCcaAC", "aAC"},
        {"abBAxbaAB", ""},    {"aaAbBA", ""},          {"abBAcbBCcaACbaAB", "aAB"},
    };
    for (const auto& [script, rest] : cases) {
        Capture err(stderr);
        Util::Lock_order order;
        const char *at = script, locks[3] = {};
        std::thread([&] { // a new one holds nothing
            for (; *at; ++at) {
                const void* const lock = &locks[(*at - 'A') % 32 % 3];
                if (islower(*at) && *at != 'x' && !order.wait(lock)) return;
                *at == 'x' ? order.destroyed(&locks[1]) : islower(*at) ? order.taken(lock) : order.released(lock);
            }
        })
            .join();
        EXPECT_STREQ(at, rest) << script;
        EXPECT_EQ(err.text().find("\n  before thread ") != std::string::npos, *rest != 0);
    }
#ifdef KAV_CHECK_LOCK_ORDER
    const std::string end = run_child([] {
                                Mutex a, b;
                                a.lock(), b.lock(), a.unlock(), a.lock();
                            }).end();
    EXPECT_EQ(end.find("signal 6 Locks are taken in contradictory orders:\n  now thread test_util_locks"), 0u) << end;
#endif
}

} // namespace
