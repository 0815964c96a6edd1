// SPDX-License-Identifier: MIT
#pragma once
#include "Trace_data.h"

/// For people at a terminal: what was traced, a line for each diner, the longest handlers, the latest timeouts.
void print_report(const Trace_data& trace);
