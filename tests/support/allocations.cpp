// SPDX-License-Identifier: MIT
#include "support/allocations.h"
#include <atomic>
#include <cstddef>

#if defined(__has_feature)
#define KAV_HAS_FEATURE(x) __has_feature(x)
#else
#define KAV_HAS_FEATURE(x) 0
#endif

static std::atomic<long> blocks{0};

long allocations() { return blocks; }

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || KAV_HAS_FEATURE(address_sanitizer) ||             \
    KAV_HAS_FEATURE(thread_sanitizer)

// The sanitizers bring an allocator of their own, which is not to be replaced but tells us.
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*allocated)(const volatile void*, size_t),
                                                         void (*freed)(const volatile void*));
static const int installed = __sanitizer_install_malloc_and_free_hooks(
    [](const volatile void*, size_t) { blocks.fetch_add(1, std::memory_order_relaxed); }, [](const volatile void*) {});

#else

// Found before the C library's by every library of the program.
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);

void* malloc(size_t n) {
    blocks.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(n);
}

void* calloc(size_t count, size_t n) {
    blocks.fetch_add(1, std::memory_order_relaxed);
    return __libc_calloc(count, n);
}

void* realloc(void* p, size_t n) {
    blocks.fetch_add(1, std::memory_order_relaxed);
    return __libc_realloc(p, n);
}
}

#endif
