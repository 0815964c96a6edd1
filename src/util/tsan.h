// SPDX-License-Identifier: MIT
#pragma once

/// Qt's library is not instrumented, so the thread sanitizer does not see the order that its locks and semaphores
/// create. The wrappers of this library tell it through these calls; in other builds they are nothing.
#if defined(__SANITIZE_THREAD__)
#define KAV_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KAV_TSAN 1
#endif
#endif

#ifdef KAV_TSAN
#include <sanitizer/tsan_interface.h>
extern "C" void AnnotateIgnoreWritesBegin(const char* file, int line); // no header has these two
extern "C" void AnnotateIgnoreWritesEnd(const char* file, int line);
namespace Util::tsan {
inline void acquire(const void* at) { __tsan_acquire(const_cast<void*>(at)); }
inline void release(const void* at) { __tsan_release(const_cast<void*>(at)); }
/// What is written between these two on this thread, a block's allocation too, counts as handed over in order.
inline void ignore_writes_begin() { AnnotateIgnoreWritesBegin(__FILE__, __LINE__); }
inline void ignore_writes_end() { AnnotateIgnoreWritesEnd(__FILE__, __LINE__); }
inline void mutex_create(const void* m) { __tsan_mutex_create(const_cast<void*>(m), 0); }
inline void mutex_destroy(const void* m) { __tsan_mutex_destroy(const_cast<void*>(m), 0); }
inline void mutex_pre_lock(const void* m) { __tsan_mutex_pre_lock(const_cast<void*>(m), 0); }
inline void mutex_post_lock(const void* m) { __tsan_mutex_post_lock(const_cast<void*>(m), 0, 0); }
inline void mutex_pre_try_lock(const void* m) { __tsan_mutex_pre_lock(const_cast<void*>(m), __tsan_mutex_try_lock); }
inline void mutex_post_try_lock(const void* m, bool taken) {
    __tsan_mutex_post_lock(const_cast<void*>(m),
                           taken ? __tsan_mutex_try_lock : __tsan_mutex_try_lock | __tsan_mutex_try_lock_failed, 0);
}
inline void mutex_pre_unlock(const void* m) { __tsan_mutex_pre_unlock(const_cast<void*>(m), 0); }
inline void mutex_post_unlock(const void* m) { __tsan_mutex_post_unlock(const_cast<void*>(m), 0); }
} // namespace Util::tsan
#else
namespace Util::tsan {
inline void acquire(const void*) {}
inline void release(const void*) {}
inline void ignore_writes_begin() {}
inline void ignore_writes_end() {}
inline void mutex_create(const void*) {}
inline void mutex_destroy(const void*) {}
inline void mutex_pre_lock(const void*) {}
inline void mutex_post_lock(const void*) {}
inline void mutex_pre_try_lock(const void*) {}
inline void mutex_post_try_lock(const void*, bool) {}
inline void mutex_pre_unlock(const void*) {}
inline void mutex_post_unlock(const void*) {}
} // namespace Util::tsan
#endif
