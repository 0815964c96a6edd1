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
    int shared = 0; // plain: the thread sanitizer sees whether the lock orders them
    const auto in_turn = [&](int rounds, int ms) {
        for (int i = 0; i < rounds; ++i) {
            while (ms && !mutex.try_lock(ms)) std::this_thread::yield();
            if (!ms) mutex.lock();
            EXPECT_VALUES("true false", mutex.is_locked(), mutex.try_lock(0)) << "not recursive";
            if (++shared % 50 == 0) std::this_thread::yield(); // longer than the other spins
            mutex.unlock();
        }
    };
    std::thread other([&] { in_turn(5000, 0); });
    in_turn(5000, 1);
    other.join();
    mutex.lock();
    std::thread late([&] { in_turn(1, 0); });
    EXPECT_TRUE(wait_until([] { return lseek(STDERR_FILENO, 0, SEEK_END) > 0; })); // a round has passed
    mutex.unlock();
    late.join();
    EXPECT_VALUES(texts(10001, Mutex::status_free), shared, mutex.status());
    const std::string text = err.text(), avoided = text_of("Deadlock avoided %p ", static_cast<void*>(&mutex));
    EXPECT_VALUES("true true", text.find(avoided + "1\n") < text.size(), text.find(avoided + "0\n") > text.size())
        << text;
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

TEST(Mutex, a_deadlock_ends_the_process_after_21_rounds) {
    Mutex mutex;
    void *const m = &mutex, *const me = QThread::currentThreadId();
    const auto start = std::chrono::steady_clock::now();
    const pid_t stalled = fork(); // cannot tell of it, which must not keep it waiting
    if (stalled == 0) alarm(60), hold(), mutex.lock(), mutex.lock();
    const Child_result r = run_child([&mutex] { mutex.lock(), mutex.lock(); });
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(10400));
    std::string all;
    for (int i = 0; i <= 20; ++i) all += text_of("Deadlock assumed %p %d (owner %p, this_thread %p)\n", m, i, me, me);
    EXPECT_VALUES(texts(all, SIGABRT), r.err, r.signal);
    int status = 0;
    waitpid(stalled, &status, 0);
    EXPECT_VALUES(texts(true, SIGABRT), WIFSIGNALED(status), WTERMSIG(status)) << status;
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

/// A thread takes what small letters name (a and b), releases what capitals name and destroys b at an x. What is left
/// of the script from where the order is found wrong.
std::string rest_of(const char* script) {
    Util::Lock_order order;
    char locks[3];
    std::thread([&] { // a new one holds nothing
        for (; *script; ++script) {
            const void* const lock = &locks[(*script - 'A') % 32 % 3];
            if (*script == 'x')
                order.destroyed(&locks[1]);
            else if (isupper(*script))
                order.released(lock);
            else if (order.wait(lock))
                order.taken(lock);
            else
                return;
        }
    })
        .join();
    return script;
}

TEST(Lock_order, is_wrong_where_a_wait_closes_a_circle) {
    const std::pair<const char*, const char*> cases[] = {
        {"abBAabBA", ""},     {"abBAbaAB", "aAB"},     {"abABbaAB", "aAB"},
        {"abBAbcCBacCA", ""}, {"abBAbcCBcaAC", "aAC"}, {"abAcBCcaAC", "aAC"},
        {"abBAxbaAB", ""},    {"aaAbBA", ""},          {"abBAcbBCcaACbaAB", "aAB"},
    };
    for (const auto& [script, rest] : cases) {
        Capture err(stderr);
        EXPECT_EQ(rest_of(script), rest) << script;
        EXPECT_EQ(err.text().find("\n  before thread ") != std::string::npos, *rest != 0);
    }
}

#ifdef KAV_CHECK_LOCK_ORDER
TEST(Lock_order, of_mutexes_ends_the_process) {
    const Child_result r = run_child([] {
        Mutex a, b;
        for (auto [first, second] : {std::pair(&a, &b), std::pair(&b, &a)}) {
            const std::lock_guard<Mutex> outer(*first), inner(*second);
        }
    });
    EXPECT_EQ(r.signal, SIGABRT);
    EXPECT_EQ(r.err.find("Locks are taken in contradictory orders:\n  now thread test_util_locks"), 0u) << r.err;
}
#endif

} // namespace
