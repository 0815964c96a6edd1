// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diagnostics/Trouble_code.h"

/// What can be wrong, as the bus is told: numbers of the range that is the makers' own.
namespace Machine_codes {

constexpr Trouble_code antenna_open{520200, 5};
constexpr Trouble_code corrections_too_old{520201, 9};
constexpr Trouble_code too_few_satellites{520202, 18};
constexpr Trouble_code no_fix{520202, 31};
constexpr Trouble_code line_lost{520203, 9};
constexpr Trouble_code wrong_checksums{520203, 19}; ///< more than one frame in 20

} // namespace Machine_codes
