// SPDX-License-Identifier: MIT
#include "support/capture.h"
#include "support/child.h"
#include "support/wait_until.h"
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
                ++total;
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
    const auto elsewhere = [](auto check) { std::thread(check).join(); };
    EXPECT_EQ(mutex.status(), Mutex::status_free);
    EXPECT_FALSE(mutex.is_locked());
    EXPECT_EQ(mutex.owner(), nullptr);
    {
        std::lock_guard<Mutex> guard(mutex);
        EXPECT_EQ(mutex.status(), Mutex::status_mine);
        EXPECT_TRUE(mutex.is_locked());
        EXPECT_EQ(mutex.owner(), this_thread());
        EXPECT_FALSE(mutex.try_lock()) << "not recursive";
        elsewhere([&] {
            EXPECT_EQ(mutex.status(), Mutex::status_other);
            EXPECT_FALSE(mutex.is_locked());
            EXPECT_FALSE(mutex.try_lock());
            EXPECT_FALSE(mutex.try_lock(1));
        });
        EXPECT_EQ(mutex.owner(), this_thread()) << "failed attempts do not change the owner";
    }
    elsewhere([&] {
        EXPECT_TRUE(mutex.try_lock()) << "looking at the status leaves it free";
        EXPECT_TRUE(mutex.is_locked());
        mutex.unlock();
    });
    EXPECT_EQ(mutex.owner(), nullptr);
}

TEST(Mutex, a_wrong_state_is_reported_and_fatal_unless_switched_off) {
    static const struct {
        int quiet, lenient, wanted;
        bool printed, aborted;
    } rows[] = {{0, 0, 0, false, false}, {0, 0, 4, false, false}, {0, 0, 1, true, true},    {0, 0, 2, true, true},
                {44, 0, 1, false, true}, {0, 43, 1, true, false}, {44, 43, 1, false, false}};
    for (const auto& r : rows) {
        Mutex mutex;
        const Child_result child = run_child([&] {
            Debug_filter::add_filter(static_cast<_JDB::jdb_enum>(r.quiet));
            Debug_filter::add_filter(static_cast<_JDB::jdb_enum>(r.lenient));
            mutex.check(r.wanted);
        });
        const std::string message = text_of("Bad mutex status: 0, wanted: %d %p %p", r.wanted,
                                            static_cast<void*>(&mutex), static_cast<void*>(nullptr));
        EXPECT_EQ(child.err, r.printed ? message : "") << r.quiet << " " << r.lenient << " " << r.wanted;
        EXPECT_EQ(child.signal, r.aborted ? SIGABRT : 0) << r.quiet << " " << r.lenient << " " << r.wanted;
    }
}

/// The debug output, read line by line while others write it.
class Debug_pipe {
public:
    Debug_pipe() {
        int fds[2];
        if (pipe(fds) != 0) abort();
        _in = fdopen(fds[0], "r");
        Debug_print::debug_file = fdopen(fds[1], "w");
    }
    ~Debug_pipe() {
        fclose(Debug_print::debug_file);
        Debug_print::debug_file = stderr;
        fclose(_in);
    }
    std::string line() {
        char text[256] = "";
        return fgets(text, sizeof text, _in) ? text : "";
    }

private:
    FILE* _in;
};

TEST(Mutex, a_long_wait_is_announced_and_its_end_too) {
    Debug_pipe output;
    Mutex mutex;
    std::atomic<void*> waiter{nullptr};
    mutex.lock();
    std::thread thread([&] {
        waiter = this_thread();
        std::lock_guard<Mutex> guard(mutex);
    });
    void* m = &mutex;
    const std::string assumed = output.line();
    mutex.unlock();
    EXPECT_EQ(assumed, text_of("Deadlock assumed %p 0 (owner %p, this_thread %p)\n", m, this_thread(), waiter.load()));
    EXPECT_EQ(output.line(), text_of("Deadlock avoided %p 1\n", m));
    thread.join();
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
    std::atomic<int> started{0}, done{0};
    const auto release = [&](int round) {
        ++started;
        while (started.load() < 2 * (round + 1)) {
        }
        limited.release();
        ++done;
    };
    std::thread other([&] {
        for (int i = 0; i < rounds; ++i) release(i);
    });
    int lost = 0;
    for (int i = 0; i < rounds; ++i) {
        release(i);
        while (done.load() < 2 * (i + 1)) {
        }
        // The other thread cannot pass its next start before this one does.
        lost += !limited.try_acquire();
        lost += limited.try_acquire();
    }
    other.join();
    EXPECT_EQ(lost, 0);
}

} // namespace
