// SPDX-License-Identifier: MIT
#pragma once
#include "util/Semaphore.h"
#include "util/api.h"
#include <atomic>

/// A named thread of the board's task layer: here a QThread with a start semaphore for its entry's own use.
class KAV_API Task {
public:
    using Entry = void* (*)(void* argument);

    /// `name` is copied. `stack_kib` [KiB] of stack, raised to what the host needs at least. `shared` and `spare` are
    /// for boards whose task layer needs them and have no meaning here. The thread does not run yet.
    Task(const char* name, int stack_kib, bool shared, int spare = 0);
    /// Waits for the thread to end. Never called on the thread itself.
    ~Task();
    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;

    /// Start the thread: it runs entry(argument) and ends. `priority` 1..99 asks for real-time scheduling of that
    /// priority and is quietly given up where the system refuses. 0 done, -1 when already started or no thread can be
    /// had.
    int start(int priority, Entry entry, void* argument);
    /// Wait until the thread has ended, at most `ms` [ms] (negative: no limit). True when it has ended or never ran.
    bool join(int ms = -1);
    bool is_current() const; ///< the caller runs on this thread

    /// What a parked entry waits on: at most one token.
    Semaphore start_semaphore{0, true};

private:
    class Thread;
    void run();

    Thread* const _thread;
    char _name[16]; ///< the system takes 15 characters
    Entry _entry = nullptr;
    void* _argument = nullptr;
    int _priority = 0;
    std::atomic<void*> _id{nullptr}; ///< of the thread while it runs (Qt::HANDLE)
};

namespace TaskImp {
/// Name the calling thread, cut to 15 characters; shown by the system's process tools.
KAV_API void set_name(const char* name);
} // namespace TaskImp
