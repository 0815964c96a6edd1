// SPDX-License-Identifier: MIT
#include "platform/Device_watchdog.h"
#include <cerrno>
#include <fcntl.h>
#include <linux/watchdog.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

Device_watchdog::~Device_watchdog() { disarm(); }

bool Device_watchdog::open(const char* path, int seconds) {
    disarm();
    struct stat there;
    // What is no device would take the bytes, and nobody would be reset; a serial line might hang.
    if (stat(path, &there) != 0) return false;
    errno = ENOTTY;
    if (!S_ISCHR(there.st_mode)) return false;
    const int fd = ::open(path, O_WRONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) return false;
    int limit = seconds;
    // A timer of a fixed limit refuses another one, and says its own.
    const bool set = ioctl(fd, WDIOC_SETTIMEOUT, &limit) == 0;
    if (!set && ioctl(fd, WDIOC_GETTIMEOUT, &limit) != 0) {
        const int reason = errno;
        if (write(fd, "V", 1) != 1) errno = reason;
        ::close(fd);
        errno = reason;
        return false;
    }
    _fd = fd;
    _seconds = limit > 0 ? limit : seconds;
    return true;
}

bool Device_watchdog::disarm() {
    if (_fd < 0) return false;
    const bool taken = write(_fd, "V", 1) == 1; // the driver's sign that the closing is meant
    ::close(_fd);
    _fd = -1;
    _seconds = 0;
    return taken;
}

bool Device_watchdog::feed() {
    if (_fd >= 0) return ioctl(_fd, WDIOC_KEEPALIVE, 0) == 0;
    errno = EBADF;
    return false;
}
