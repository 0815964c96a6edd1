// SPDX-License-Identifier: MIT
#include "support/test.h"

static std::atomic<long> blocks{0};
static thread_local long blocks_of_thread = 0;

long allocations() { return blocks; }
long allocations_of_thread() { return blocks_of_thread; }

static void count_block() { ++blocks, ++blocks_of_thread; }

extern "C" {
#ifdef KAV_SANITIZED
// The sanitizers bring an allocator of their own, which is not to be replaced but tells us.
int __sanitizer_install_malloc_and_free_hooks(void (*allocated)(const volatile void*, size_t),
                                              void (*freed)(const volatile void*));
[[maybe_unused]] static const int installed = __sanitizer_install_malloc_and_free_hooks(
    [](const volatile void*, size_t) { count_block(); }, [](const volatile void*) {});
#else
// Found before the C library's by every library of the program.
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* malloc(size_t n) { return count_block(), __libc_malloc(n); }
void* calloc(size_t count, size_t n) { return count_block(), __libc_calloc(count, n); }
void* realloc(void* p, size_t n) { return count_block(), __libc_realloc(p, n); }
#endif
}
