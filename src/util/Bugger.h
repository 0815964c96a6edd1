// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"

/// Report of a broken invariant.
class KAV_API Bugger {
public:
    /// Prints "BUG: %s\r\n" on standard output and ends the process as a failed assertion does (source util/Bugger,
    /// line 42).
    [[noreturn]] static void report_bug(const char* text);
};
