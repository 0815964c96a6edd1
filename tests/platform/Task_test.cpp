// SPDX-License-Identifier: MIT
#include "platform/Task.h"
#include "support/child.h"
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

/// What an entry sees of its thread; it ends when `go_on` gets a token.
struct Probe {
    Probe(const char* name, int stack_kib) : task(name, stack_kib, true, 0) {}

    static void* entry(void* argument) {
        auto* p = static_cast<Probe*>(argument);
        pthread_getname_np(pthread_self(), p->name, sizeof p->name);
        pthread_attr_t attributes;
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getstacksize(&attributes, &p->stack);
        pthread_attr_destroy(&attributes);
        pthread_getschedparam(pthread_self(), &p->policy, &p->scheduling);
        p->is_current = p->task.is_current();
        p->ready.release();
        p->go_on.acquire();
        p->ended = true;
        return nullptr;
    }

    // Plain: start and join must order them.
    char name[32] = "";
    size_t stack = 0;
    bool is_current = false, ended = false;
    int policy = -1;
    sched_param scheduling = {};
    Semaphore ready, go_on;
    Task task;
};

TEST(Task, runs_its_entry_once_on_a_thread_of_its_own_without_an_application_object) {
    sched_param wanted = {};
    wanted.sched_priority = 51;
    const bool allowed = pthread_setschedparam(pthread_self(), SCHED_RR, &wanted) == 0;
    wanted.sched_priority = 0;
    pthread_setschedparam(pthread_self(), SCHED_OTHER, &wanted);
    const struct {
        const char* name;
        int stack_kib, priority;
        size_t least_kib;
        const char* shown;
    } rows[] = {{"kav.123456789012", 4096, 0, 4096, "kav.12345678901"},
                {"PDS1", 1, 51, 400, "PDS1"}, // asks for real time and does without
                {"", -5, 0, 400, ""}};
    for (const auto& r : rows) {
        Probe p(r.name, r.stack_kib);
        EXPECT_TRUE(p.task.join(0)) << "a task that never ran has nothing to wait for";
        ASSERT_EQ(p.task.start(r.priority, Probe::entry, &p), 0);
        p.ready.acquire();
        EXPECT_STREQ(p.name, r.shown);
        EXPECT_GE(p.stack, r.least_kib * 1024);
        EXPECT_EQ(p.policy, r.priority && allowed ? SCHED_RR : SCHED_OTHER);
        EXPECT_EQ(p.scheduling.sched_priority, allowed ? r.priority : 0);
        EXPECT_TRUE(p.is_current && !p.task.is_current());
        EXPECT_FALSE(p.task.join(1));
        p.go_on.release();
        EXPECT_TRUE(p.task.join());
        EXPECT_TRUE(p.ended);
        EXPECT_EQ(p.task.start(0, Probe::entry, &p), -1);
    }
}

TEST(Task, its_destructor_waits_for_the_thread) {
    const auto count = [](void* n) -> void* { return ++*static_cast<int*>(n), nullptr; };
    for (int i = 0; i < 50; ++i) {
        int steps = 0; // plain: the destructor must order it
        ASSERT_EQ(Task("short", 1024, false).start(0, count, &steps), 0);
        ASSERT_EQ(steps, 1);
    }
}

TEST(Task, a_thread_that_cannot_be_had_is_told) {
    const Child_result r = run_child([] {
        // Only an ordinary user has a limit. The plain system call touches this thread alone.
        if (getuid() == 0 && syscall(SYS_setuid, 65534) != 0) _exit(2);
        const rlimit none = {0, 0};
        setrlimit(RLIMIT_NPROC, &none);
        Task task("never", 1024, false);
        _exit(task.start(0, nullptr, nullptr) == -1 && task.join(0) ? 0 : 1);
    });
    EXPECT_EQ(r.status, 0) << r.err;
}

} // namespace
