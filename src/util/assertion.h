// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"

namespace Util {

/// Ends the process with abort(), after writing out what still stands in the buffers of standard output and of the
/// debug output, so that the last message is not lost in a pipe. It never waits for a stream: what another thread
/// holds, or a full pipe does not take, is left (see try_output.h). Any thread.
[[noreturn]] KAV_API void flush_and_abort();

/// What flush_and_abort() does last, once, in the thread that comes first; null: nothing. Others that abort meanwhile
/// wait for it, at most three seconds. It ends in less, and does only what a signal handler may do.
KAV_API void set_last_act(void (*act)());

/// Prints "PROGRAM: FILE:LINE: FUNCTION: Assertion `TEXT' failed." on standard error, as the C library's assert does,
/// and ends the process with flush_and_abort(). Unlike assert it works in release builds too, and the caller names the
/// place: `file` is a path under the source root without extension ("glue/diner/Diner"), `line` a fixed number that
/// field reports can be searched for.
[[noreturn]] KAV_API void assertion_failed(const char* text, const char* file, unsigned line, const char* function);

} // namespace Util
