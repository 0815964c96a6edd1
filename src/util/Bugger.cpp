// SPDX-License-Identifier: MIT
#include "util/Bugger.h"
#include "util/assertion.h"
#include <cstdio>

void Bugger::report_bug(const char* text) {
    printf("BUG: %s\r\n", text);
    Util::assertion_failed("false", "util/Bugger", 42, "static void Bugger::report_bug(const char*)");
}
