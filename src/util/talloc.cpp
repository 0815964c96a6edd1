// SPDX-License-Identifier: MIT
#include "util/talloc.h"
#include "util/Mutex.h"
#include <cstddef>
#include <cstdlib>

namespace {

constexpr int pools = 6;

struct Pool {
    Mutex mutex;
    int usage KAV_GUARDED_BY(mutex) = 0; ///< nothing counts here: the pools are the process heap
};

Pool* all_pools() {
    static Pool* const all = new Pool[pools];
    return all;
}

} // namespace

void* talloc(unsigned short, int size) { return malloc(static_cast<size_t>(size)); }

void tdealloc(void* p) { free(p); }

int tallocation_init() {
    for (int i = 0; i < pools; ++i) {
        const Scoped_lock held(all_pools()[i].mutex);
        all_pools()[i].usage = 0;
    }
    return 0;
}

int tallocation_usage(unsigned short pool) {
    if (pool >= pools) return -1;
    const Scoped_lock held(all_pools()[pool].mutex);
    return all_pools()[pool].usage;
}
