// SPDX-License-Identifier: MIT
#include "util/try_output.h"
#include <cstdarg>
#include <ctime>
#include <fcntl.h>
#include <poll.h>

namespace Util {

namespace {

constexpr int limit_ms = 20;

/// The stream, held, with a descriptor that does not block meanwhile; or not.
class Held_stream {
public:
    explicit Held_stream(FILE* stream) : _stream(stream) {
        if (!hold()) return;
        _held = true;
        _fd = fileno(stream);
        if (_fd < 0 || !takes_bytes()) return; // in memory, or nothing to wait for
        _flags = fcntl(_fd, F_GETFL);
        // That there is room does not say for how much. The mode is that of the open file, perhaps shared with other
        // processes: they get it back at once.
        if (_flags >= 0 && !(_flags & O_NONBLOCK)) _changed = fcntl(_fd, F_SETFL, _flags | O_NONBLOCK) == 0;
    }
    ~Held_stream() {
        if (_changed) fcntl(_fd, F_SETFL, _flags);
        if (_held) funlockfile(_stream);
    }
    Held_stream(const Held_stream&) = delete;
    Held_stream& operator=(const Held_stream&) = delete;

    bool usable() const { return _held && (_fd < 0 || _flags >= 0); }

private:
    bool hold() {
        for (int ms = 0; ftrylockfile(_stream) != 0; ++ms) {
            if (ms == limit_ms) return false;
            const struct timespec pause = {0, 1000000};
            nanosleep(&pause, nullptr);
        }
        return true;
    }
    bool takes_bytes() const {
        struct pollfd p = {_fd, POLLOUT, 0};
        return poll(&p, 1, limit_ms) == 1 && p.revents == POLLOUT;
    }

    FILE* const _stream;
    int _fd = -1, _flags = -1;
    bool _held = false, _changed = false;
};

} // namespace

bool try_printf(FILE* stream, const char* format, ...) {
    const Held_stream held(stream);
    if (!held.usable()) return false;
    va_list args;
    va_start(args, format);
    const bool printed = vfprintf(stream, format, args) >= 0;
    va_end(args);
    return fflush(stream) == 0 && printed;
}

bool try_flush(FILE* stream) {
    const Held_stream held(stream);
    return held.usable() && fflush(stream) == 0;
}

} // namespace Util
