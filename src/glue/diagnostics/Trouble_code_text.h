// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diagnostics/Trouble_code_table.h"
#include "util/api.h"
#include <string>

/// What a failure mode means, in words for a technician. Never null; "reserved" for those that have no meaning.
KAV_API const char* failure_mode_text(unsigned fmi);

/// The codes of a table as lines of 17 bytes, in the order of SPN and FMI, each number hexadecimal:
///
///     "SSSSS FF CC A   \n"    SPN, FMI, count, A active or P previously active
///
/// A code that comes back after it was cleared is written as active.
KAV_API std::string to_text(const Trouble_code_table& codes);
/// Put the codes of such a text into an empty table, all as previously active. Lines that are none are passed over, as
/// are codes for which there is no place. Their number of good lines.
KAV_API unsigned from_text(const std::string& text, Trouble_code_table& codes);
