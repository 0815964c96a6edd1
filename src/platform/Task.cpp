// SPDX-License-Identifier: MIT
#include "platform/Task.h"
#include "platform/Task_dispatcher.h"
#include "util/tsan.h"
#include <QThread>
#include <algorithm>
#include <climits>
#include <cstdio>
#include <pthread.h>
#include <sched.h>

/// What the C library and Qt need on a thread of their own, instrumented builds included; the board's figures leave
/// that out.
static constexpr unsigned min_stack_kib = 512;

class Task::Thread : public QThread {
public:
    explicit Thread(Task& task) : _task(task) {}

private:
    void run() override { _task.run(); }

    Task& _task;
};

Task::Task(const char* name, int stack_kib, bool, int) : _thread(new Thread(*this)) {
    snprintf(_name, sizeof _name, "%s", name);
    const unsigned kib = stack_kib > 0 ? static_cast<unsigned>(stack_kib) : 0;
    _thread->setStackSize(std::clamp(kib, min_stack_kib, UINT_MAX / 1024) * 1024);
}

Task::~Task() {
    join();
    if (!_entry) delete _thread->eventDispatcher(); // else the thread did it at its end
    delete _thread;
}

int Task::start(int priority, Entry entry, void* argument) {
    if (_entry) return -1;
    _entry = entry;
    _argument = argument;
    _priority = priority;
    if (!_thread->eventDispatcher()) _thread->setEventDispatcher(new Task_dispatcher);
    Util::tsan::release(this);
    _thread->start();
    if (_thread->isRunning() || _thread->isFinished()) return 0;
    _entry = nullptr;
    return -1;
}

bool Task::join(int ms) {
    if (!_entry) return true;
    if (!_thread->wait(ms < 0 ? ULONG_MAX : static_cast<unsigned long>(ms))) return false;
    Util::tsan::acquire(this);
    return true;
}

bool Task::is_current() const { return _id.load(std::memory_order_relaxed) == QThread::currentThreadId(); }

void Task::run() {
    Util::tsan::acquire(this);
    _id.store(QThread::currentThreadId(), std::memory_order_relaxed);
    TaskImp::set_name(_name);
    if (_priority > 0) {
        // Among equals round robin: a busy handler delays its peers but does not starve them. Without the right to it
        // the thread runs as an ordinary one.
        sched_param wanted = {};
        wanted.sched_priority = _priority;
        pthread_setschedparam(pthread_self(), SCHED_RR, &wanted);
    }
    _entry(_argument);
    _id.store(nullptr, std::memory_order_relaxed);
    Util::tsan::release(this);
}

void TaskImp::set_name(const char* name) {
    char cut[16];
    snprintf(cut, sizeof cut, "%s", name);
    pthread_setname_np(pthread_self(), cut);
}
