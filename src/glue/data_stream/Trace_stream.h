// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"

class Data_stream;

/// Write what Trace has recorded to a stream, as Trace::write() does: true when all of it was taken. The caller is the
/// stream's writer meanwhile; recording goes on, also of what the stream does.
KAV_API bool write_trace(Data_stream& to);
