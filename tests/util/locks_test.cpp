// SPDX-License-Identifier: MIT
#include "support/capture.h"
#include "support/child.h"
#include "support/wait_until.h"
#include "util/Debug_base.h"
#include "util/Mutex.h"
#include "util/Semaphore.h"
#include <chrono>
#include <climits>
#include <csignal>
#include <gtest/gtest.h>
#include <mutex>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

template <class... Arguments>
std::string text_of(const char* format, Arguments... arguments) {
    char text[256];
    snprintf(text, sizeof text, format, arguments...);
    return text;
}

void* this_thread() { return QThread::currentThreadId(); }

TEST(Mutex, lets_one_thread_in_at_a_time) {
    Mutex mutex;
    Capture err(stderr);
    int inside = 0, total = 0; // plain: the thread sanitizer sees whether the lock orders them
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 5000; ++i) {
                while (t == 3 && !mutex.try_lock(i % 2)) std::this_thread::yield();
                if (t != 3) mutex.lock();
                EXPECT_EQ(++inside, 1);
                EXPECT_TRUE(mutex.is_locked() && !mutex.try_lock(0)) << "not recursive";
                if (++total % 50 == 0) std::this_thread::yield(); // longer than the others spin
                --inside;
                mutex.unlock();
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(total, 20000);
    EXPECT_EQ(mutex.status(), Mutex::status_free);
    EXPECT_EQ(err.text().find(text_of("avoided %p 0\n", static_cast<void*>(&mutex))), std::string::npos)
        << "a wait that no message announced ends without one";
}

TEST(Mutex, a_wrong_state_is_reported_and_fatal_unless_switched_off) {
    // two active categories (44 quiet, 43 lenient), wanted status of a free mutex, printed, aborted
    const int rows[][5] = {{0, 0, 0, 0, 0}, {0, 0, 4, 0, 0}, {0, 0, 2, 1, 1}, {44, 0, 1, 0, 1}, {0, 43, 1, 1, 0}};
    for (const auto& [quiet, lenient, wanted, printed, aborted] : rows) {
        Mutex mutex;
        const Child_result child = run_child([&, q = quiet, l = lenient, w = wanted] {
            Debug_filter::add_filter(static_cast<_JDB::jdb_enum>(q));
            Debug_filter::add_filter(static_cast<_JDB::jdb_enum>(l));
            mutex.check(w);
        });
        const void *m = &mutex, *none = nullptr;
        EXPECT_EQ(child.err, printed ? text_of("Bad mutex status: 0, wanted: %d %p %p", wanted, m, none) : "");
        EXPECT_EQ(child.signal, aborted ? SIGABRT : 0) << quiet << lenient << wanted;
    }
}

TEST(Mutex, the_end_of_a_long_wait_is_announced) {
    Mutex mutex;
    Capture err(stderr);
    mutex.lock();
    std::thread thread([&] {
        const std::lock_guard<Mutex> guard(mutex);
        EXPECT_EQ(mutex.status(), Mutex::status_mine);
    });
    EXPECT_TRUE(wait_until([] { return lseek(STDERR_FILENO, 0, SEEK_END) > 0; })); // a round has passed
    mutex.unlock();
    thread.join();
    EXPECT_NE(err.text().find(text_of("Deadlock avoided %p 1\n", static_cast<void*>(&mutex))), std::string::npos);
}

TEST(Mutex, a_deadlock_ends_the_process_after_21_rounds) {
    Mutex mutex;
    void *const m = &mutex, *const me = this_thread();
    const auto start = Clock::now();
    const Child_result r = run_child([&mutex] {
        mutex.lock();
        mutex.lock();
    });
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(10400));
    std::string expected;
    for (int i = 0; i <= 20; ++i)
        expected += text_of("Deadlock assumed %p %d (owner %p, this_thread %p)\n", m, i, me, me);
    EXPECT_EQ(r.err, expected);
    EXPECT_EQ(r.signal, SIGABRT);
}

TEST(Semaphore, tokens_add_up_and_are_waited_for_in_ticks_of_10_ms) {
    Semaphore tokens(1);
    tokens.release();
    EXPECT_TRUE(tokens.try_acquire(INT_MAX) && tokens.try_acquire());
    for (int ticks : {0, -1, INT_MIN}) EXPECT_FALSE(tokens.try_acquire(ticks)) << "no wait";
    const auto start = Clock::now();
    EXPECT_FALSE(tokens.try_acquire(4));
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(39));
}

TEST(Semaphore, limited_to_one_token_it_never_loses_the_last) {
    Semaphore limited(0, true);
    for (int i = 0; i < 3; ++i) limited.release();
    EXPECT_TRUE(limited.try_acquire());
    EXPECT_FALSE(limited.try_acquire());

    // Releases of two threads at the same moment leave one token, not none.
    const auto end = Clock::now() + std::chrono::seconds(1); // a busy machine does fewer rounds
    std::atomic<int> started{0}, done{0}, last{20000};
    const auto release = [&](int round) {
        ++started;
        while (started < 2 * round) std::this_thread::yield();
        limited.release();
        ++done;
    };
    std::thread other([&] {
        for (int round = 1; round <= last; ++round) release(round);
    });
    int lost = 0;
    for (int round = 1; round <= last; ++round) {
        if (Clock::now() > end) last = round;
        release(round);
        while (done < 2 * round) std::this_thread::yield(); // the other thread waits at its next start
        lost += !limited.try_acquire();
    }
    other.join();
    EXPECT_EQ(lost, 0);
}

} // namespace
