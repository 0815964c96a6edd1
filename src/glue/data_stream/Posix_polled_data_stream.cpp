// SPDX-License-Identifier: MIT
#include "glue/data_stream/Posix_polled_data_stream.h"
#include "glue/data_stream/Posix_data_stream.h"
#include "glue/diner/waiter_descriptor.h"
#include "util/ticks.h"
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {

constexpr unsigned failed = static_cast<unsigned>(-1);

int ms_since(uint64_t ticks) {
    return static_cast<int>(static_cast<double>(Util::ticks() - ticks) * Util::ns_per_tick() / 1e6);
}

} // namespace

Posix_polled_data_stream::Posix_polled_data_stream() { set_name("DSPosP(%p)", static_cast<void*>(this)); }

Posix_polled_data_stream::~Posix_polled_data_stream() {
    attach(nullptr);
    close();
    if (_wake_fd >= 0) ::close(_wake_fd);
}

void Posix_polled_data_stream::init(module_man& mm) {
    if (_module_id == 0 && mm.init_module(&_module_id, false) != 0) exit(-132);
}

bool Posix_polled_data_stream::attach(waiter_descriptor* w) {
    if (waiter_descriptor* const before = _waiter) before->set_sleeper(nullptr);
    _waiter = nullptr;
    if (!w) return true;
    if (_wake_fd < 0) _wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (_wake_fd < 0) return false;
    _waiter = w;
    w->set_sleeper(this);
    return true;
}

bool Posix_polled_data_stream::open(const char* path) {
    close();
    const int fd = Posix_data_stream::open_descriptor(path, O_RDWR | O_NOCTTY | O_CLOEXEC, false, false, false);
    if (fd < 0 || !open_fd(fd)) return false;
    set_name("DSPosP(%p, %s)", static_cast<void*>(this), path);
    return true;
}

bool Posix_polled_data_stream::open_fd(int fd) {
    close();
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) return false;
    _fd = fd;
    _ready = false;
    _rests_from = 0;
    if (_line_is_lost) tell(event_line_back);
    _line_is_lost = false;
    return true;
}

bool Posix_polled_data_stream::close() {
    if (_fd < 0) return false;
    ::close(_fd);
    _fd = -1;
    set_name("DSPosP(%p)", static_cast<void*>(this));
    return true;
}

bool Posix_polled_data_stream::get_data(int n) { return n == 0; }

unsigned int Posix_polled_data_stream::_write(const unsigned char* data, unsigned int n) {
    unsigned done = 0;
    while (_fd >= 0) {
        const ssize_t put = ::write(_fd, data + done, n - done);
        if (put < 0 && (errno == EAGAIN || errno == EINTR)) {
            struct pollfd room = {_fd, POLLOUT, 0};
            poll(&room, 1, -1);
            continue;
        }
        if (put <= 0) return put < 0 && done == 0 ? failed : done;
        done += static_cast<unsigned>(put);
        bytes_written += static_cast<uint32_t>(put);
        if (done == n) return done;
    }
    return failed;
}

waiter_sleeper::Result Posix_polled_data_stream::sleep(int ms) {
    const bool rests = resting();
    if (rests) {
        const int left = std::max(0, retry_ms - ms_since(_rests_from));
        if (ms < 0 || left < ms) ms = left;
    }
    struct pollfd waits[2] = {{_wake_fd, POLLIN, 0}, {rests ? -1 : _fd, POLLIN, 0}};
    const int n = poll(waits, 2, ms);
    _ready = waits[1].revents != 0;
    if (waits[0].revents) {
        eventfd_t count;
        eventfd_read(_wake_fd, &count);
        return woken;
    }
    return n == 0 && !rests ? time_over : disturbed;
}

void Posix_polled_data_stream::wake() { eventfd_write(_wake_fd, 1); }

/// Whether the descriptor is left alone, as it would say for ever that there is something, and there is nothing.
bool Posix_polled_data_stream::resting() {
    if (_rests_from != 0 && ms_since(_rests_from) >= retry_ms) _rests_from = 0;
    return _rests_from != 0;
}

void Posix_polled_data_stream::look() {
    if (_fd < 0 || resting()) return;
    struct pollfd now = {_fd, POLLIN, 0};
    if (!_ready && poll(&now, 1, 0) <= 0) return;
    _ready = false;
    unsigned char piece[1024];
    const ssize_t got = ::read(_fd, piece, sizeof piece);
    if (got <= 0) return rest(got < 0 && errno == EIO);
    const auto arrived = static_cast<uint32_t>(got);
    bytes_read += arrived;
    bytes_lost += arrived - buffer.put(piece, arrived);
    if (_line_is_lost) tell(event_line_back);
    _line_is_lost = false;
    tell(event_data);
}

/// There was nothing at the descriptor. An end of file alone is no hang-up: a file may grow.
void Posix_polled_data_stream::rest(bool lost) {
    struct pollfd now = {_fd, POLLIN, 0};
    if (!lost && poll(&now, 1, 0) <= 0) return; // it was snatched by somebody else
    _rests_from = std::max<uint64_t>(1, Util::ticks());
    if (_line_is_lost || (!lost && !(now.revents & (POLLHUP | POLLERR)))) return;
    _line_is_lost = true;
    _hang_ups.fetch_add(1, std::memory_order_relaxed);
    tell(event_line_lost);
}

void Posix_polled_data_stream::tell(Event e) {
    if (waiter_descriptor* const w = _waiter)
        w->send_event(waiter_event(_module_id, e, 0), waiter_descriptor::merge_duplicates);
}
