// SPDX-License-Identifier: MIT
#include "util/assertion.h"
#include "util/Debug_print.h"
#include "util/try_output.h"
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>

namespace Util {

void flush_and_abort() {
    try_flush(stdout);
    if (Debug_print::debug_file) try_flush(Debug_print::debug_file);
    raise(SIGABRT); // abort() flushes all streams, and waits for them, where a sanitizer stands in for it
    abort();
}

void assertion_failed(const char* text, const char* file, unsigned line, const char* function) {
    try_flush(stdout);
    try_printf(stderr, "%s: %s:%u: %s: Assertion `%s' failed.\n", program_invocation_short_name, file, line, function,
               text);
    flush_and_abort();
}

} // namespace Util
