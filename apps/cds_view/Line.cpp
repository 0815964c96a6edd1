// SPDX-License-Identifier: MIT
#include "Line.h"
#include "util/local_socket.h"
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

int64_t now_ms() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

} // namespace

Line::~Line() {
    if (_fd >= 0) ::close(_fd);
}

std::string Line::open(const std::string& source) {
    struct stat there;
    if (stat(source.c_str(), &there) == 0 && S_ISSOCK(there.st_mode)) {
        _fd = Util::connect_local(source.c_str());
        if (_fd >= 0) return "";
        return errno == ECONNREFUSED ? "nobody serves it any more" : strerror(errno);
    }
    const std::string path = source.substr(0, source.find(':'));
    _fd = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (_fd < 0) return strerror(errno);
    if (!isatty(_fd)) return "it is neither a socket nor a serial line";
    if (flock(_fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) return "another program uses it";
    return open_from_args(source.c_str()) ? "" : "it cannot be set up";
}

/// Wait for the descriptor; false when the time is over or the program shall end.
bool Line::ready(short events, int64_t end) const {
    struct pollfd waits[] = {{_fd, events, 0}, {_stop, POLLIN, 0}};
    const auto left = static_cast<int>(std::max<int64_t>(end - now_ms(), 0));
    return poll(waits, 2, left) > 0 && !waits[1].revents;
}

bool Line::get_data(int n) {
    for (const int64_t end = now_ms() + _timeout_ms; n > 0;) {
        unsigned char piece[512];
        if (!ready(POLLIN, end)) return false;
        const ssize_t got = ::read(_fd, piece, std::min(static_cast<size_t>(n), sizeof piece));
        if (got < 0 && errno == EAGAIN) continue;
        if (got <= 0) return false;
        buffer.put(piece, static_cast<uint32_t>(got));
        n -= static_cast<int>(got);
    }
    return true;
}

unsigned int Line::_write(const unsigned char* data, unsigned int n) {
    unsigned done = 0;
    for (const int64_t end = now_ms() + _timeout_ms; done < n && ready(POLLOUT, end);) {
        const ssize_t put = ::write(_fd, data + done, n - done);
        if (put < 0 && errno == EAGAIN) continue;
        if (put <= 0) break;
        done += static_cast<unsigned>(put);
    }
    return done;
}
