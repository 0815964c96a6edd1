// SPDX-License-Identifier: MIT
#pragma once

/// Which lock guards what, in words that clang checks when a file is compiled with -Wthread-safety: our build with
/// clang makes errors of it. Other compilers see nothing.
#ifdef __clang__
#define KAV_THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define KAV_THREAD_SAFETY(attribute)
#endif

/// Classes: a lock, by what messages call it; a guard, which holds a lock from its construction to its end.
#define KAV_CAPABILITY(name) KAV_THREAD_SAFETY(capability(name))
#define KAV_SCOPED_CAPABILITY KAV_THREAD_SAFETY(scoped_lockable)

/// Members: read and written with the lock held alone. The second form: what the pointer leads to.
#define KAV_GUARDED_BY(lock) KAV_THREAD_SAFETY(guarded_by(lock))
#define KAV_PT_GUARDED_BY(lock) KAV_THREAD_SAFETY(pt_guarded_by(lock))
/// A lock that is taken while the other is held, never the other way round.
#define KAV_ACQUIRED_AFTER(lock) KAV_THREAD_SAFETY(acquired_after(lock))

/// Functions: called with the locks held; without them; take them; give them back; take them if the result is `result`.
#define KAV_REQUIRES(...) KAV_THREAD_SAFETY(requires_capability(__VA_ARGS__))
#define KAV_EXCLUDES(...) KAV_THREAD_SAFETY(locks_excluded(__VA_ARGS__))
#define KAV_ACQUIRE(...) KAV_THREAD_SAFETY(acquire_capability(__VA_ARGS__))
#define KAV_RELEASE(...) KAV_THREAD_SAFETY(release_capability(__VA_ARGS__))
#define KAV_TRY_ACQUIRE(...) KAV_THREAD_SAFETY(try_acquire_capability(__VA_ARGS__))
/// Says that a lock is held: where two names stand for one lock, which the compiler cannot know.
#define KAV_ASSERT_CAPABILITY(...) KAV_THREAD_SAFETY(assert_capability(__VA_ARGS__))
/// A function whose locks cannot be put into these words: a comment says why.
#define KAV_NO_THREAD_SAFETY_ANALYSIS KAV_THREAD_SAFETY(no_thread_safety_analysis)
