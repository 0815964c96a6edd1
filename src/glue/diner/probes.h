// SPDX-License-Identifier: MIT
#pragma once

/// Places at which tracers of the system (bpftrace, perf) can look into a process that runs: provider "kavqtglue". One
/// that nobody looks at is an instruction that does nothing. Arguments are values that are at hand anyway.
///
/// | probe | arguments |
/// |---|---|
/// | event_post | address of the waiter, module, id |
/// | handler_begin | name of the diner, address of its waiter, module, id |
/// | timeout_begin | name of the diner, uid, lateness [ms] |
/// | handler_end | name of the diner |
#ifdef KAV_USDT
#include <sys/sdt.h>
#ifdef __clang__ // the system's macros end in a comma and nothing where a probe has no further argument
#pragma clang diagnostic ignored "-Wgnu-zero-variadic-macro-arguments"
#endif
#define KAV_PROBE1(name, a) DTRACE_PROBE1(kavqtglue, name, a)
#define KAV_PROBE3(name, a, b, c) DTRACE_PROBE3(kavqtglue, name, a, b, c)
#define KAV_PROBE4(name, a, b, c, d) DTRACE_PROBE4(kavqtglue, name, a, b, c, d)
#else
#define KAV_PROBE1(name, a) (void)(a)
#define KAV_PROBE3(name, a, b, c) (void)(a), (void)(b), (void)(c)
#define KAV_PROBE4(name, a, b, c, d) (void)(a), (void)(b), (void)(c), (void)(d)
#endif
