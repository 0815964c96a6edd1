// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"

/// Interface of a pooled allocator; here all pools are the process heap. Any thread.

KAV_API void* talloc(unsigned short pool, int size); ///< `pool` is not looked at
KAV_API void tdealloc(void* p);
KAV_API int tallocation_init(); ///< zero the usage counters; 0
/// Usage counter of pool 0..5, always 0 here; -1 for other pools.
KAV_API int tallocation_usage(unsigned short pool);
