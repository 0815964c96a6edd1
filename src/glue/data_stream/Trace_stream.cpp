// SPDX-License-Identifier: MIT
#include "glue/data_stream/Trace_stream.h"
#include "glue/data_stream/Data_stream.h"
#include "glue/diner/Trace.h"
#include <algorithm>

static bool put(void* to, const char* bytes, size_t n) {
    auto& stream = *static_cast<Data_stream*>(to);
    for (size_t at = 0; at < n;) {
        const auto left = static_cast<unsigned>(n - at);
        const unsigned written = stream._write(reinterpret_cast<const unsigned char*>(bytes) + at, left);
        if (written == 0 || written > left) return false; // or one of the failures, which are large numbers
        at += written;
    }
    return true;
}

bool write_trace(Data_stream& to) { return Trace::write(put, &to); }
