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
        char name[32];
        pthread_getname_np(pthread_self(), name, sizeof name);
        pthread_attr_t attributes;
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getstacksize(&attributes, &p->stack);
        pthread_attr_destroy(&attributes);
        int policy;
        sched_param scheduling;
        pthread_getschedparam(pthread_self(), &policy, &scheduling);
        p->seen = texts(name, policy, scheduling.sched_priority, p->task->is_current());
        p->go_on.acquire();
        return nullptr;
    }
    size_t stack = 0;
    std::string seen;
    Semaphore go_on;
    Task* task = nullptr;
};

TEST(Task, runs_its_entry_once_on_a_thread_of_its_own) {
    sched_param wanted = {}, normal = {};
    wanted.sched_priority = 51;
    const bool allowed = pthread_setschedparam(pthread_self(), SCHED_RR, &wanted) == 0;
    pthread_setschedparam(pthread_self(), SCHED_OTHER, &normal);
    const std::tuple<const char*, int, int, size_t, std::string> rows[] = {
        // name; stack [KiB], the second the default; priority, of real time where that is allowed; stack; what is seen
        {"kav.123456789012", 4096, 0, 4096, texts("kav.12345678901", SCHED_OTHER, 0)},
        {"PDS1", -5, 51, 400, texts("PDS1", allowed ? SCHED_RR : SCHED_OTHER, allowed ? 51 : 0)}};
    for (const auto& [name, stack_kib, priority, least_kib, seen] : rows) {
        Probe p;
        Task task(name, stack_kib, true);
        p.task = &task;
        EXPECT_VALUES("true 0", task.join(0), task.start(priority, Probe::entry, &p))
            << "what never ran is not waited for";
        EXPECT_VALUES("false false", task.join(1), task.is_current());
        p.go_on.release();
        EXPECT_VALUES("true -1", task.join(), task.start(0, Probe::entry, &p));
        EXPECT_VALUES(seen + " true true", p.seen, p.stack >= least_kib * 1024) << p.stack;
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
    int ends[2], fast = 0;
    char byte = 'x';
    if (pipe(ends) != 0) return nullptr;
    QTimer slow, ticks;
    QObject::connect(&slow, &QTimer::timeout, [&] { loop.exit(3); });
    slow.start(30000);
    QObject::connect(&ticks, &QTimer::timeout, [&] {
        QEventLoop().processEvents(); // its own timer does not run in it again
        if (++fast == 3 && write(ends[1], &byte, 1) != 1) loop.exit(2);
    });
    ticks.start(1);
    const int left = ticks.remainingTime();
    QSocketNotifier readable(ends[0], QSocketNotifier::Read);
    std::thread other;
    QObject::connect(&readable, &QSocketNotifier::activated, [&] {
        if (read(ends[0], &byte, 1) != 1) loop.exit(4);
        ticks.stop(); // nothing but the other thread wakes the loop now
        other = std::thread([&] { QMetaObject::invokeMethod(&loop, "quit", Qt::QueuedConnection); });
    });
    *static_cast<std::string*>(seen) =
        Values{loop.exec(), fast >= 3, left >= 0 && left <= 1, slow.remainingTime() > 0}.text;
    if (other.joinable()) other.join();
    for (const int end : ends) close(end);
    return nullptr;
}

/// An object of the thread, deleted at its end, as by every QThread.
void* leave_an_object(void* late) {
    auto* o = new QObject;
    *static_cast<QPointer<QObject>*>(late) = o;
    o->deleteLater();
    return nullptr;
}

TEST(Task, may_run_a_loop_of_qt_and_deletes_later_what_it_was_asked_to) {
    int argc = 0;
    QCoreApplication application(argc, nullptr);
    std::string seen;
    QPointer<QObject> late;
    Task loop("loop", 0, false), without_loop("none", 0, false);
    EXPECT_VALUES("0 true 0 true true true", loop.start(0, run_a_loop, &seen), loop.join(), seen);
    EXPECT_VALUES("0 true true", without_loop.start(0, leave_an_object, &late), without_loop.join(), late.isNull());
}

} // namespace
