// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"

/// The version of these headers, which is what a program was built with; the build takes it from here. The first number
/// changes when programs must be built anew, the second when something was added, the third with repairs.
#define KAVQTGLUE_VERSION_MAJOR 1
#define KAVQTGLUE_VERSION_MINOR 0
#define KAVQTGLUE_VERSION_PATCH 0

/// As one number, to compare with: `#if KAVQTGLUE_VERSION >= KAVQTGLUE_VERSION_CHECK(1, 2, 0)`.
#define KAVQTGLUE_VERSION_CHECK(major, minor, patch) ((major) << 16 | (minor) << 8 | (patch))
#define KAVQTGLUE_VERSION                                                                                              \
    KAVQTGLUE_VERSION_CHECK(KAVQTGLUE_VERSION_MAJOR, KAVQTGLUE_VERSION_MINOR, KAVQTGLUE_VERSION_PATCH)

namespace Kavqtglue {

/// The version of the library that the program runs with, for instance "1.0.0"; it may be newer than the headers that
/// the program was built with. Static text. Any thread.
KAV_API const char* version();
/// The same as one number, like KAVQTGLUE_VERSION.
KAV_API int version_number();

} // namespace Kavqtglue
