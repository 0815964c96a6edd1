// SPDX-License-Identifier: MIT
#pragma once
#include "glue/data_stream/Data_stream.h"
#include "glue/diner/Trace.h"

/// For who moves bytes into a stream's buffer, with its lock held: so many have come, of which so many had no room.
inline void trace_bytes(const Data_stream& s, uint32_t arrived, uint32_t lost) {
    if (Trace::on(Trace::bytes_arrived)) Trace::put(Trace::bytes_arrived, 0, arrived, Trace::short_name(s.get_name()));
    if (lost && Trace::on(Trace::bytes_lost)) Trace::put(Trace::bytes_lost, 0, lost, Trace::short_name(s.get_name()));
}
