// SPDX-License-Identifier: MIT
#include "util/Bugger.h"
#include "util/assertion.h"
#include "util/try_output.h"

void Bugger::report_bug(const char* text) {
    Util::try_printf(stdout, "BUG: %s\r\n", text);
    Util::assertion_failed("false", "util/Bugger", 42, "static void Bugger::report_bug(const char*)");
}
