// SPDX-License-Identifier: MIT
#pragma once
#include "Trace_data.h"

/// Draw what happened from `from` to `to` [us] as SVG: a row for each diner, bars for handlers, arrows from posts. What
/// is too narrow or too much to be seen is left out.
void draw_trace(FILE* out, const Trace_data& trace, double from, double to);
