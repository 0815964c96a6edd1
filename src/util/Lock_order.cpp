// SPDX-License-Identifier: MIT
#include "util/Lock_order.h"
#include "util/Debug_print.h"
#include <algorithm>
#include <cstdlib>
#include <execinfo.h>
#include <pthread.h>

namespace Util {

namespace {

/// What the calling thread holds. Plain data, because locks are still taken when a thread's objects are gone. More than
/// there is room for goes unseen.
struct Held {
    const void* locks[16];
    int count;
    const void** begin() { return locks; }
    const void** end() { return locks + count; }
};
thread_local Held held;

} // namespace

Lock_order::Lock_order() {
    void* call;
    backtrace(&call, 1); // the first time takes heap
}

Lock_order& Lock_order::get() {
    static Lock_order& order = *new Lock_order; // static objects use locks to the very end
    return order;
}

void Lock_order::Step::tell(const char* when) const {
    Debug_print::try_print("  %s thread %s waits for %p and holds %p\n", when, thread, wanted, held);
    char** const names = backtrace_symbols(calls, num_calls);
    for (int i = 1; names && i < num_calls; ++i) Debug_print::try_print("    %s\n", names[i]); // without this class
    free(names);
}

bool Lock_order::wait(const void* lock) {
    if (held.count == 0) return true;
    const std::lock_guard<std::mutex> guard(_mutex);
    for (const void* h : held) {
        if (h == lock || known(h, lock)) continue; // that it waits for itself is told by the lock
        const int length = find_way(lock, h, 0);
        Step now = {h, lock, "", {}, 0};
        if (length > 0 || _num_steps < max_steps) {
            now.num_calls = backtrace(now.calls, 10);
            pthread_getname_np(pthread_self(), now.thread, sizeof now.thread);
        }
        if (length > 0) {
            Debug_print::try_print("Locks are taken in contradictory orders:\n");
            now.tell("now");
            for (int i = 0; i < length; ++i) _way[i]->tell("before");
            return false;
        }
        if (_num_steps < max_steps) _steps[_num_steps++] = now;
    }
    return true;
}

bool Lock_order::known(const void* h, const void* wanted) const {
    return std::any_of(_steps, _steps + _num_steps, [=](const Step& s) { return s.held == h && s.wanted == wanted; });
}

/// The length of a way `from` a lock `to` another one, 0 when there is none. There are no circles among what is known,
/// and few locks are taken while others are held: a plain search ends soon.
int Lock_order::find_way(const void* from, const void* to, int length) {
    for (int i = 0; i < _num_steps && length < max_way; ++i) {
        if (_steps[i].held != from) continue;
        _way[length] = &_steps[i];
        if (_steps[i].wanted == to) return length + 1;
        if (const int whole = find_way(_steps[i].wanted, to, length + 1)) return whole;
    }
    return 0;
}

void Lock_order::taken(const void* lock) {
    if (held.count < 16) held.locks[held.count++] = lock;
}

void Lock_order::released(const void* lock) {
    held.count = static_cast<int>(std::remove(held.begin(), held.end(), lock) - held.begin());
}

void Lock_order::destroyed(const void* lock) {
    const std::lock_guard<std::mutex> guard(_mutex);
    const auto of = [lock](const Step& s) { return s.held == lock || s.wanted == lock; };
    _num_steps = static_cast<int>(std::remove_if(_steps, _steps + _num_steps, of) - _steps);
}

} // namespace Util
