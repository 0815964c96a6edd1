// SPDX-License-Identifier: MIT
#include "support/capture.h"
#include "support/child.h"
#include "util/Debug_base.h"
#include "util/Debug_print.h"
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

std::string text_of(const char* fmt, ...) KAV_PRINTF(1, 2);
std::string text_of(const char* fmt, ...) {
    char text[256];
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
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
                if (t == 3) {
                    while (!mutex.try_lock(i % 2)) std::this_thread::yield();
                } else {
                    mutex.lock();
                }
                EXPECT_EQ(++inside, 1);
                if (++total % 50 == 0) std::this_thread::yield(); // longer than the others spin
                --inside;
                mutex.unlock();
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(total, 20000);
    EXPECT_EQ(err.text().find(text_of("avoided %p 0\n", static_cast<void*>(&mutex))), std::string::npos)
        << "a wait that no message announced ends without one";
}

TEST(Mutex, knows_its_holder) {
    Mutex mutex;
    EXPECT_EQ(mutex.status(), Mutex::status_free);
    EXPECT_EQ(mutex.owner(), nullptr);
    {
        std::lock_guard<Mutex> guard(mutex);
        EXPECT_EQ(mutex.status(), Mutex::status_mine);
        EXPECT_FALSE(mutex.try_lock()) << "not recursive";
        std::thread([&] {
            EXPECT_EQ(mutex.status(), Mutex::status_other);
            EXPECT_FALSE(mutex.is_locked());
            EXPECT_FALSE(mutex.try_lock(1));
        }).join();
        EXPECT_EQ(mutex.owner(), this_thread()) << "failed attempts do not change the owner";
    }
    EXPECT_EQ(mutex.status(), Mutex::status_free);
    EXPECT_TRUE(mutex.try_lock()) << "looking at the status leaves it free";
    EXPECT_TRUE(mutex.is_locked());
    mutex.unlock();
    EXPECT_FALSE(mutex.is_locked());
}

TEST(Mutex, a_wrong_state_is_reported_and_fatal_unless_switched_off) {
    // two active categories (44 quiet, 43 lenient), wanted status of a free mutex, printed, aborted
    const int rows[][5] = {{0, 0, 0, 0, 0},  {0, 0, 4, 0, 0},  {0, 0, 1, 1, 1},  {0, 0, 2, 1, 1},
                           {44, 0, 1, 0, 1}, {0, 43, 1, 1, 0}, {44, 43, 1, 0, 0}};
    for (const auto& [quiet, lenient, wanted, printed, aborted] : rows) {
        SCOPED_TRACE(text_of("%d %d %d", quiet, lenient, wanted));
        Mutex mutex;
        const Child_result child = run_child([&, q = quiet, l = lenient, w = wanted] {
            Debug_filter::add_filter(static_cast<_JDB::jdb_enum>(q));
            Debug_filter::add_filter(static_cast<_JDB::jdb_enum>(l));
            mutex.check(w);
        });
        const void *m = &mutex, *none = nullptr;
        EXPECT_EQ(child.err, printed ? text_of("Bad mutex status: 0, wanted: %d %p %p", wanted, m, none) : "");
        EXPECT_EQ(child.signal, aborted ? SIGABRT : 0);
    }
}

TEST(Mutex, a_long_wait_is_announced_and_its_end_too) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    FILE* in = fdopen(ends[0], "r");
    Debug_print::debug_file = fdopen(ends[1], "w");
    Mutex mutex;
    void *m = &mutex, *waiter = nullptr;
    char line[256];
    mutex.lock();
    std::thread thread([&] {
        waiter = this_thread();
        std::lock_guard<Mutex> guard(mutex);
    });
    const std::string assumed = fgets(line, sizeof line, in);
    mutex.unlock();
    thread.join();
    EXPECT_EQ(assumed, text_of("Deadlock assumed %p 0 (owner %p, this_thread %p)\n", m, this_thread(), waiter));
    EXPECT_EQ(fgets(line, sizeof line, in), text_of("Deadlock avoided %p 1\n", m));
    fclose(Debug_print::debug_file);
    Debug_print::debug_file = stderr;
    fclose(in);
}

TEST(Mutex, a_deadlock_ends_the_process_after_21_rounds) {
    Mutex mutex;
    const auto start = Clock::now();
    const Child_result r = run_child([&mutex] {
        mutex.lock();
        mutex.lock();
    });
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(10400));
    std::string expected;
    for (int i = 0; i <= 20; ++i) {
        expected += text_of("Deadlock assumed %p %d (owner %p, this_thread %p)\n", static_cast<void*>(&mutex), i,
                            this_thread(), this_thread());
    }
    EXPECT_EQ(r.err, expected);
    EXPECT_EQ(r.signal, SIGABRT);
}

TEST(Semaphore, hands_out_each_token_once) {
    Semaphore tokens(2), back;
    EXPECT_EQ(tokens.available(), 2);
    int handed = 0; // plain: ordered by the semaphores alone
    std::thread thread([&] {
        for (int i = 0; i < 1000; ++i) {
            tokens.acquire();
            ++handed;
            back.release();
        }
    });
    back.acquire();
    back.acquire();
    EXPECT_EQ(handed, 2);
    for (int i = 2; i < 1000; ++i) {
        tokens.release();
        back.acquire();
        EXPECT_EQ(handed, i + 1);
    }
    thread.join();
    for (int ticks : {0, -1, INT_MIN}) EXPECT_FALSE(tokens.try_acquire(ticks)) << "no wait";
    tokens.release();
    tokens.release();
    EXPECT_EQ(tokens.available(), 2) << "without the limit they add up";
    EXPECT_TRUE(tokens.try_acquire(INT_MAX));
    EXPECT_TRUE(tokens.try_acquire());
    const auto start = Clock::now();
    EXPECT_FALSE(tokens.try_acquire(4));
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(39)) << "a tick is 10 ms";
}

TEST(Semaphore, limited_to_one_token_it_never_loses_the_last) {
    Semaphore limited(0, true);
    for (int i = 0; i < 3; ++i) limited.release();
    EXPECT_EQ(limited.available(), 1);
    EXPECT_TRUE(limited.try_acquire());
    EXPECT_FALSE(limited.try_acquire());

    // Releases of two threads at the same moment leave one token, not none.
    constexpr int rounds = 20000;
    const auto end = Clock::now() + std::chrono::seconds(1); // a busy machine does fewer
    std::atomic<int> started{0}, done{0}, last{rounds};
    const auto reach = [](std::atomic<int>& counter, int value) {
        for (int spins = 0; counter.load() < value; ++spins) {
            if (spins > 20000) std::this_thread::yield();
        }
    };
    const auto release = [&](int round) {
        ++started;
        reach(started, 2 * round);
        limited.release();
        ++done;
    };
    std::thread other([&] {
        for (int round = 1; round <= last.load(); ++round) release(round);
    });
    int lost = 0;
    for (int round = 1; round <= last.load(); ++round) {
        if (Clock::now() > end) last = round;
        release(round);
        reach(done, 2 * round); // the other thread stops at its next start until this one is there
        lost += !limited.try_acquire();
    }
    other.join();
    EXPECT_EQ(lost, 0);
    EXPECT_EQ(limited.available(), 0);
}

} // namespace
