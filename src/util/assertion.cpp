// SPDX-License-Identifier: MIT
#include "util/assertion.h"
#include "util/Debug_print.h"
#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace Util {

void flush_and_abort() {
    fflush(stdout);
    if (Debug_print::debug_file) fflush(Debug_print::debug_file);
    abort();
}

void assertion_failed(const char* text, const char* file, unsigned line, const char* function) {
    fflush(stdout);
    fprintf(stderr, "%s: %s:%u: %s: Assertion `%s' failed.\n", program_invocation_short_name, file, line, function,
            text);
    flush_and_abort();
}

} // namespace Util
