// SPDX-License-Identifier: MIT
#include "platform/Task.h"
#include <gtest/gtest.h>
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
        EXPECT_FALSE(task.join(1) || task.is_current());
        p.go_on.release();
        EXPECT_TRUE(task.join());
        EXPECT_STREQ(p.name, r.shown);
        EXPECT_TRUE(p.is_current && p.stack >= r.least_kib * 1024) << p.stack;
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

} // namespace
