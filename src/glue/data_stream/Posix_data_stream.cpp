// SPDX-License-Identifier: MIT
#include "glue/data_stream/Posix_data_stream.h"
#include "glue/data_stream/trace_bytes.h"
#include "util/Debug_print.h"
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <poll.h>
#include <sys/select.h>
#include <termios.h>
#include <unistd.h>

namespace {

constexpr unsigned failed = static_cast<unsigned>(-1);
constexpr mode_t everybody = 0666;

struct timeval to_timeval(int ms) {
    struct timeval t;
    t.tv_sec = ms / 1000;
    t.tv_usec = (ms % 1000) * 1000;
    return t;
}

/// select() for a descriptor that its sets have no room for: same results, and `left` becomes what remains of it.
int poll_until_ready(int fd, bool for_writing, struct timeval& left) {
    using namespace std::chrono;
    const microseconds limit = seconds(left.tv_sec) + microseconds(left.tv_usec);
    const auto start = steady_clock::now();
    struct pollfd wait = {fd, static_cast<short>(for_writing ? POLLOUT : POLLIN), 0};
    const int ready = poll(&wait, 1, static_cast<int>(ceil<milliseconds>(limit).count()));
    const auto remaining = std::max(microseconds(0), limit - duration_cast<microseconds>(steady_clock::now() - start));
    left.tv_sec = static_cast<time_t>(remaining.count() / 1000000);
    left.tv_usec = static_cast<suseconds_t>(remaining.count() % 1000000);
    if (ready <= 0 || !(wait.revents & POLLNVAL)) return ready;
    errno = EBADF;
    return -1;
}

/// Wait at most `left`, which the system reduces by the time waited: 1 ready, 0 time over, -1 failed.
int wait_until_ready(int fd, bool for_writing, struct timeval& left) {
    if (fd >= FD_SETSIZE) return poll_until_ready(fd, for_writing, left);
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    return select(fd + 1, for_writing ? nullptr : &set, for_writing ? &set : nullptr, nullptr, &left);
}

} // namespace

bool Posix_data_stream::Commander::send_break(int) { return tcsendbreak(_fd, 0) == 0; }

Posix_data_stream::Posix_data_stream(int read_fd, int write_fd) : _read_fd(read_fd), _write_fd(write_fd) {
    set_name("DSPosix(%p)", static_cast<void*>(this));
}

Posix_data_stream::~Posix_data_stream() {
    close();
    close_read();
    close_write();
}

int Posix_data_stream::open_descriptor(const char* path, int access, bool create, bool blocking, bool append) {
    const int flags = access | (create ? O_CREAT : 0) | (blocking ? 0 : O_NONBLOCK) | (append ? O_APPEND : 0);
    const int fd = ::open(path, flags, everybody);
    if (fd >= 0) return fd;
    const int error = errno;
    fprintf(stderr, "Error opening file [%s]\n", path);
    // A claimed serial line is closed to all but root, who is told when he claims it, too.
    if (error == EBUSY) Debug_print::dprint("%s is in use by another program\n", path);
    errno = error;
    return -1;
}

bool Posix_data_stream::open(const char* path, bool create, bool blocking, bool append) {
    close();
    close_read();
    close_write();
    fprintf(stderr, "About to Open %s\n", path);
    const int fd = open_descriptor(path, O_RDWR, create, blocking, append);
    if (fd < 0) return false;
    fprintf(stderr, "Opened %s\n", path);
    _read_fd = _write_fd = fd;
    set_name("DSPosix(%p, %s, rw)", static_cast<void*>(this), path);
    return true;
}

bool Posix_data_stream::open_write(const char* path, bool create, bool blocking, bool append) {
    close_write();
    const int fd = open_descriptor(path, O_WRONLY | O_NOCTTY, create, blocking, append);
    if (fd < 0) return false;
    _write_fd = fd;
    set_name("DSPosix(%p, %s, w)", static_cast<void*>(this), path);
    return true;
}

bool Posix_data_stream::open_read(const char* path, bool blocking) {
    close_read();
    const int fd = open_descriptor(path, O_RDONLY, false, blocking, false);
    if (fd < 0) return false;
    _read_fd = fd;
    set_name("DSPosix(%p, %s, r)", static_cast<void*>(this), path);
    return true;
}

bool Posix_data_stream::close() {
    if (_read_fd != _write_fd) return false;
    _read_fd = -1;
    return close_side(_write_fd);
}

bool Posix_data_stream::close_read() { return _read_fd != _write_fd && close_side(_read_fd); }

bool Posix_data_stream::close_write() { return _read_fd != _write_fd && close_side(_write_fd); }

bool Posix_data_stream::close_side(int& fd) {
    if (fd < 0) return false;
    ::close(fd);
    fd = -1;
    set_name("DSPosix(%p)", static_cast<void*>(this));
    return true;
}

bool Posix_data_stream::init_commander(Commander& c) const {
    c._fd = _write_fd;
    return _write_fd >= 0;
}

int Posix_data_stream::set_read_timeout(int ms) {
    _read_timeout = ms;
    return 1;
}

int Posix_data_stream::set_default_read_timeout() { return set_read_timeout(no_timeout); }

int Posix_data_stream::set_write_timeout(int ms) {
    _write_timeout = ms;
    return 1;
}

int Posix_data_stream::set_default_write_timeout() { return set_write_timeout(no_timeout); }

bool Posix_data_stream::get_data(int n) {
    if (_read_fd < 0) return false;
    struct timeval left = to_timeval(_read_timeout);
    while (n > 0) {
        if (_read_timeout >= 0) {
            const int ready = wait_until_ready(_read_fd, false, left);
            if (ready == 0) return false;
            if (ready < 0) perror("select(), Posix_data_stream::get_data");
        }
        // As much as is there, but nothing beyond what was asked for.
        unsigned char piece[256];
        const ssize_t got = ::read(_read_fd, piece, std::min(static_cast<size_t>(n), sizeof piece));
        if (got <= 0) return false;
        const auto arrived = static_cast<uint32_t>(got);
        bytes_read += arrived;
        const uint32_t lost = arrived - buffer.put(piece, arrived);
        bytes_lost += lost;
        trace_bytes(*this, arrived, lost);
        log_data(piece, static_cast<int>(got));
        n -= static_cast<int>(got);
    }
    flush_log_data();
    return true;
}

unsigned int Posix_data_stream::_write(const unsigned char* data, unsigned int n) {
    if (_write_fd < 0) return failed;
    if (_write_timeout < 0) {
        const ssize_t put = ::write(_write_fd, data, n);
        if (put > 0) bytes_written += static_cast<uint32_t>(put);
        return static_cast<unsigned>(put);
    }
    // A device says on its read descriptor whether it takes more; a stream that only writes has none.
    const int fd = _read_fd >= 0 ? _read_fd : _write_fd;
    struct timeval left = to_timeval(_write_timeout);
    for (unsigned done = 0; done < n; ++done) {
        const int ready = wait_until_ready(fd, true, left);
        if (ready == 0) return done;
        if (ready < 0) perror("select(), Posix_data_stream::_write");
        // One at a time: the write of a longer piece would wait until all of it has room.
        if (::write(_write_fd, data + done, 1) != 1) return done;
        ++bytes_written;
    }
    return n;
}
