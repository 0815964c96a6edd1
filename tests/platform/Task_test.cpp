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

using Body = std::function<void()>;
void* run(void* body) { return (*static_cast<Body*>(body))(), nullptr; }

TEST(Task, runs_its_entry_once_on_a_thread_of_its_own) {
    sched_param wanted = {}, normal = {};
    wanted.sched_priority = 51;
    const bool allowed = pthread_setschedparam(pthread_self(), SCHED_RR, &wanted) == 0;
    pthread_setschedparam(pthread_self(), SCHED_OTHER, &normal);
    const std::tuple<const char*, int, int, size_t, std::string> rows[] = {
        // name; stack [KiB], the second the default; priority, of real time where that is allowed; stack; what is seen
        {"kav.123456789012", 4096, 0, 4096, texts("kav.12345678901", SCHED_OTHER, 0)},
        {"PDS1", -5, 51, 400, texts("PDS1", allowed ? SCHED_RR : SCHED_OTHER, allowed ? 51 : 0)}};
    for (const auto& [name, stack_kib, priority, least_kib, expected] : rows) {
        Task task(name, stack_kib, true);
        Semaphore go_on;
        std::string seen; // plain, as all here: start and join must order it
        size_t stack = 0;
        Body probe = [&] {
            char own_name[32];
            pthread_getname_np(pthread_self(), own_name, sizeof own_name);
            pthread_attr_t attributes;
            pthread_getattr_np(pthread_self(), &attributes);
            pthread_attr_getstacksize(&attributes, &stack);
            pthread_attr_destroy(&attributes);
            int policy;
            sched_param scheduling;
            pthread_getschedparam(pthread_self(), &policy, &scheduling);
            seen = texts(own_name, policy, scheduling.sched_priority, task.is_current());
            go_on.acquire();
        };
        EXPECT_VALUES("true 0", task.join(0), task.start(priority, run, &probe)) << "what never ran is not waited for";
        EXPECT_VALUES("false false", task.join(1), task.is_current());
        go_on.release();
        EXPECT_VALUES("true -1", task.join(), task.start(0, run, &probe));
        EXPECT_VALUES(expected + " true true", seen, stack >= least_kib * 1024) << stack;
    }
    int steps = 0;
    Body count = [&] { ++steps; };
    for (int i = 0; i < 50; ++i) EXPECT_EQ(Task("short", 1024, false).start(0, run, &count), 0) << "ends in its end";
    EXPECT_EQ(steps, 50);
}

TEST(Task, may_run_a_loop_of_qt_and_deletes_later_what_it_was_asked_to) {
    int argc = 0;
    QCoreApplication application(argc, nullptr);
    std::string seen;
    QPointer<QObject> late;
    Body with_loop = [&] { // as a handler may run one
        QEventLoop loop;
        int ends[2], fast = 0;
        char byte = 'x';
        if (pipe(ends) != 0) return;
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
        seen = Values{loop.exec(), fast >= 3, left >= 0 && left <= 1, slow.remainingTime() > 0}.text;
        other.join();
        for (const int end : ends) close(end);
    };
    Body without = [&] { late = new QObject, late->deleteLater(); }; // it goes at the thread's end, as by every QThread
    Task loop("loop", 0, false), without_loop("none", 0, false);
    EXPECT_VALUES("0 true 0 true true true", loop.start(0, run, &with_loop), loop.join(), seen);
    EXPECT_VALUES("0 true true", without_loop.start(0, run, &without), without_loop.join(), late.isNull());
}

} // namespace
