// SPDX-License-Identifier: MIT
#pragma once
#include "platform/Watchdog.h"
#include "util/api.h"
#include <string>

/// The service manager that started the program (systemd, or another one that speaks its protocol): told when the
/// service is ready and when it ends, and fed as a watchdog, which restarts the program alone. Each is a datagram to
/// the socket that the variable NOTIFY_SOCKET names; a service of the type "notify" has it, and with WatchdogSec= also
/// WATCHDOG_USEC. Without a manager nothing happens, and that is well. Any thread, after the construction.
///
///     Service_manager manager; // in main, before threads
///     ...                      // open, load, start
///     manager.ready();
class KAV_API Service_manager final : public Watchdog {
public:
    /// Reads the variables NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID: nothing else of the library looks into the
    /// environment. A socket that cannot be spoken to is told of in a line on the debug output, and left alone.
    Service_manager();
    /// The same by hand; each may be null, as a variable that is not set.
    Service_manager(const char* notify_socket, const char* watchdog_usec, const char* watchdog_pid);
    ~Service_manager() override;

    /// There is a manager that wants to be told.
    bool is_there() const { return !_socket.empty(); }

    // True when it was told, or is not there. False with errno; EAGAIN when it does not read just now. They wait for
    // nothing.

    bool ready();
    bool stopping();
    bool status(const char* text); ///< one line for people, shown by `systemctl status`
    bool feed() override;

    int limit_ms() const override { return _limit_ms; } ///< 0 also when the watchdog is meant for another process

private:
    bool send(const std::string& text) const;

    std::string _socket; ///< where; empty: nowhere
    int _fd = -1;
    int _limit_ms = 0;
};
