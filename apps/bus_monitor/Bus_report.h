// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diagnostics/Trouble_code_monitor.h"
#include <string>

/// The tables of a bus, as text.
namespace Bus_report {

/// A node a line, with a line for each of its codes below.
std::string table(const Trouble_code_monitor& monitor, const Atime& now);
/// A line for each code, and one for a node without codes.
std::string csv(const Trouble_code_monitor& monitor, const Atime& now);
/// A message that answers a request, decoded as far as it is known.
std::string answer(const JIN_message& m);

} // namespace Bus_report
