// SPDX-License-Identifier: MIT
#include "util/version.h"

#define TEXT_OF(number) #number
#define TEXT(number) TEXT_OF(number)

namespace Kavqtglue {

const char* version() {
    return TEXT(KAVQTGLUE_VERSION_MAJOR) "." TEXT(KAVQTGLUE_VERSION_MINOR) "." TEXT(KAVQTGLUE_VERSION_PATCH);
}

int version_number() { return KAVQTGLUE_VERSION; }

} // namespace Kavqtglue
