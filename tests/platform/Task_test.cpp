// SPDX-License-Identifier: MIT
#include "platform/Task.h"
#include "support/test.h"
#include <QCoreApplication>
#include <QEventLoop>
#include <QPointer>
#include <QSocketNotifier>
#include <QTimer>
#include <pthread.h>
#include <sched.h>

namespace {

/// What an entry sees of its thread. Plain: start and join must order it.
struct Probe {
    static void* entry(void* argument) {
        auto* p = static_cast<Probe*>(argument);
        pthread_getname_np(pthread_self(), p->name, sizeof p->name);
        pthread_attr_t attributes;
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getstacksize(&attributes, &p->stack);
        pthread_attr_destroy(&attributes);
        pthread_getschedparam(pthread_self(), &p->policy, &p->scheduling);
        p->is_current = p->task->is_current();
        p->go_on.acquire();
        return nullptr;
    }
    char name[32] = "";
    size_t stack = 0;
    bool is_current = false;
    int policy = -1;
    sched_param scheduling = {};
    Semaphore go_on;
    Task* task = nullptr;
};

TEST(Task, runs_its_entry_once_on_a_thread_of_its_own) {
    sched_param wanted = {}, normal = {};
    wanted.sched_priority = 51;
    const bool allowed = pthread_setschedparam(pthread_self(), SCHED_RR, &wanted) == 0;
    pthread_setschedparam(pthread_self(), SCHED_OTHER, &normal);
    const struct {
        const char* name;
        int stack_kib, priority;
        size_t least_kib;
        const char* shown;
    } rows[] = {{"kav.123456789012", 4096, 0, 4096, "kav.12345678901"},
                {"PDS1", -5, 51, 400, "PDS1"}}; // asks for real time and does without
    for (const auto& r : rows) {
        Probe p;
        Task task(r.name, r.stack_kib, true);
        p.task = &task;
        EXPECT_TRUE(task.join(0)) << "a task that never ran has nothing to wait for";
        ASSERT_EQ(task.start(r.priority, Probe::entry, &p), 0);
        EXPECT_VALUES("false false", task.join(1), task.is_current());
        p.go_on.release();
        EXPECT_TRUE(task.join());
        EXPECT_STREQ(p.name, r.shown);
        EXPECT_VALUES("true true", p.is_current, p.stack >= r.least_kib * 1024) << p.stack;
        EXPECT_EQ(p.policy, r.priority && allowed ? SCHED_RR : SCHED_OTHER);
        EXPECT_EQ(p.scheduling.sched_priority, allowed ? r.priority : 0);
        EXPECT_EQ(task.start(0, Probe::entry, &p), -1);
    }
    int steps = 0; // plain: the destructor must order it
    const auto count = [](void* n) -> void* { return ++*static_cast<int*>(n), nullptr; };
    for (int i = 1; i <= 50; ++i) {
        ASSERT_EQ(Task("short", 1024, false).start(0, count, &steps), 0);
        ASSERT_EQ(steps, i);
    }
}

/// A loop of Qt inside an entry, as a handler may run one.
void* run_a_loop(void* seen) {
    QEventLoop loop;
    int pipe_ends[2], fast = 0, bytes = 0;
    if (pipe(pipe_ends) != 0) return nullptr;
    QTimer slow, ticks;
    QObject::connect(&slow, &QTimer::timeout, [&] { loop.exit(3); });
    slow.start(30000);
    QObject::connect(&ticks, &QTimer::timeout, [&] {
        QEventLoop within; // its own timer does not run in it again
        within.processEvents();
        if (++fast == 3 && write(pipe_ends[1], "x", 1) != 1) loop.exit(2);
    });
    ticks.start(1);
    QSocketNotifier readable(pipe_ends[0], QSocketNotifier::Read);
    std::thread other;
    QObject::connect(&readable, &QSocketNotifier::activated, [&] {
        char byte;
        bytes += read(pipe_ends[0], &byte, 1) == 1;
        ticks.stop(); // nothing but the other thread wakes the loop now
        other = std::thread([&] { QMetaObject::invokeMethod(&loop, "quit", Qt::QueuedConnection); });
    });
    const int left = ticks.remainingTime();
    const bool quit = loop.exec() == 0;
    other.join();
    *static_cast<bool*>(seen) = quit && fast >= 3 && bytes == 1 && left >= 0 && left <= 1 && slow.remainingTime() > 0;
    for (const int end : pipe_ends) close(end);
    return nullptr;
}

TEST(Task, may_run_a_loop_of_qt_and_deletes_later_what_it_was_asked_to) {
    int argc = 0;
    QCoreApplication application(argc, nullptr);
    bool seen = false;
    Task task("loop", 0, false);
    ASSERT_TRUE(task.start(0, run_a_loop, &seen) == 0 && task.join());
    EXPECT_TRUE(seen);
    QPointer<QObject> late; // of the thread, and deleted at its end, as by every QThread
    Task without_loop("none", 0, false);
    const auto leave_one = [](void* p) -> void* {
        auto* o = new QObject;
        *static_cast<QPointer<QObject>*>(p) = o;
        o->deleteLater();
        return nullptr;
    };
    ASSERT_TRUE(without_loop.start(0, leave_one, &late) == 0 && without_loop.join());
    EXPECT_TRUE(late.isNull());
}

} // namespace
