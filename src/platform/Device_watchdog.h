// SPDX-License-Identifier: MIT
#pragma once
#include "platform/Watchdog.h"
#include "util/api.h"

/// The machine's watchdog timer, by the device that Linux makes of it: when it is not fed, it resets the machine. From
/// the opening on it runs; a program that is killed, or aborts, or hangs, leaves it running. One thread at a time.
class KAV_API Device_watchdog final : public Watchdog {
public:
    Device_watchdog() = default;
    ~Device_watchdog() override; ///< disarm()

    /// Open the device and have it bite after `seconds` [s], or whatever it takes in place of that. False with errno:
    /// EBUSY when another program feeds it, ENOTTY when it is no watchdog.
    bool open(const char* path = "/dev/watchdog", int seconds = 30);
    /// Stop the timer and close: for an end in good order. True when the driver took it; where it is built or loaded
    /// with `nowayout` the machine is reset all the same.
    bool disarm();

    bool feed() override;
    int limit_ms() const override { return _seconds * 1000; } ///< what the driver said; 0 while closed

private:
    int _fd = -1;
    int _seconds = 0;
};
