// SPDX-License-Identifier: MIT
#pragma once
#include <cstdint>

/// The clock of the simulated machine. Like that of a controller without a battery it begins in 1970, and the
/// receiver's first time sets it. It is this program's own: the clock of the host is not touched.
namespace Machine_clock {

void begin();
/// Let it be `ms` [ms] after 1970 now.
void set(int64_t ms);
/// Between midnight of January 6th, 1980, where the weeks of GPS begin, and 1970, less the leap seconds so far [s].
constexpr int32_t gps_to_utc = 315964800 - 18;

} // namespace Machine_clock
