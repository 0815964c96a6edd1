// SPDX-License-Identifier: MIT
// The reader of traces: whatever the file holds, what it tells is within what it has read, and a whole trace stays one.
#include "fuzz/checks.h"
#include "trace_view/Trace_data.h"
#include <cmath>

void fuzz(Input in) {
    if (in.is_empty()) return;
    std::string bytes = in.rest();
    FILE* const file = fmemopen(bytes.data(), bytes.size(), "rb");
    Trace_data trace;
    const char* const wrong = trace.read(file);
    fclose(file);
    const auto within = [](int index, size_t n) { return index >= 0 && static_cast<size_t>(index) < n; };
    for (const Trace_data::Handler& h : trace.handlers) {
        require(within(h.diner, trace.diners.size()), "a handler's diner is known");
        require(h.post == -1 || within(h.post, trace.posts.size()), "and its post, if any");
        require(std::isfinite(h.begin) && h.begin >= 0 && h.begin <= trace.end, "it begins within the trace");
        require(h.end == Trace_data::not_ended || (h.end >= h.begin && h.end <= trace.end), "and ends there");
        require(h.wait == Trace_data::not_known || (h.wait >= 0 && h.wait <= trace.end), "after a time that can be");
    }
    require(wrong || trace.lines() >= 2, "a whole trace has its two brackets");
}
