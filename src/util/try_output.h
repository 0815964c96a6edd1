// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"
#include <cstdio>

namespace Util {

/// Print formatted text and flush, as far as that can be had without waiting: for a thread that ends the process, or
/// is about to, while another one may stand for ever in a write to the same stream (a stalled console, a pipe that
/// nobody reads). True when all was written.
///
/// Who only happens to use the stream, or a reader that is a little late, is waited for, 20 ms each. What does not fit
/// into a pipe or a line at once is dropped, with what stood in the stream's buffer before. A pipe without a reader is
/// left alone: the signal would end the process in another way than it means to end. Any thread.
KAV_API bool try_printf(FILE* stream, const char* format, ...) KAV_PRINTF(2, 3);
/// The same without a text: write out what the stream's buffer holds.
KAV_API bool try_flush(FILE* stream);

} // namespace Util
