// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

/// A program's one way to fail: one line on standard error, behind what it has printed.
[[noreturn]] KAV_PRINTF(2, 3) inline void fail(int status, const char* fmt, ...) {
    fflush(stdout);
    va_list args;
    va_start(args, fmt);
    fprintf(stderr, "%s: ", program_invocation_short_name);
    vfprintf(stderr, fmt, args);
    fputc('\n', stderr);
    va_end(args);
    exit(status);
}
