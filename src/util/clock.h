// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"
#include <ctime>

namespace Util {

using Wall_clock = void (*)(struct timespec& now);

/// The time of day: the one place of the library that reads it. Any thread.
KAV_API void wall_clock(struct timespec& now);

/// The time since the system started, while it slept too. Nobody can set it. Any thread.
KAV_API void boot_clock(struct timespec& now);

/// Put other clocks in their places (null: the system's again), for tests and for replaying a day in a minute. Waits
/// still last as long as the system's clock says; how long handlers run is measured by `boot`. Called when no other
/// thread is reading.
KAV_API void set_wall_clock(Wall_clock clock, Wall_clock boot = nullptr);
bool boot_clock_replaced();

} // namespace Util
