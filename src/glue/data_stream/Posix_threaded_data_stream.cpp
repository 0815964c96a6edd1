// SPDX-License-Identifier: MIT
#include "glue/data_stream/Posix_threaded_data_stream.h"
#include "glue/data_stream/trace_bytes.h"
#include "platform/Task.h"
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {

constexpr unsigned failed = static_cast<unsigned>(-1);
/// [ms] after which a writer that waits for room looks whether the stream was closed.
constexpr int room_wait_ms = 100;

/// Of the board's task layer.
constexpr int reader_stack_kib = 1024;
constexpr int reader_priority = 51;

/// Numbered by instance. The task layer's names are short, so from the eleventh stream on they repeat.
struct Reader_name {
    Reader_name() {
        static std::atomic<unsigned> instances{0};
        char whole[16];
        snprintf(whole, sizeof whole, "PDS%u", instances++);
        snprintf(text, sizeof text, "%.4s", whole);
    }
    char text[5];
};

} // namespace

Posix_threaded_data_stream::Posix_threaded_data_stream()
    : _reader(new Task(Reader_name().text, reader_stack_kib, true)) {
    stream_lock = &_mutex;
    set_name("DSPosT(%p)", static_cast<void*>(this));
}

Posix_threaded_data_stream::~Posix_threaded_data_stream() {
    {
        const Scoped_lock held(_descriptor_lock);
        _stop = true;
    }
    wake_reader();
    _reader->join();
    close();
    if (_wake_fd >= 0) ::close(_wake_fd);
    delete _reader;
}

void Posix_threaded_data_stream::init(module_man& mm) {
    bool ok;
    {
        const Scoped_lock held(_mutex);
        ok = _waiters.module_id() != 0 || _waiters.init(mm) == 0;
    }
    // Without the lock: at exit the diners are waited for, and one may be waiting for the lock.
    if (!ok) exit(-132);
}

bool Posix_threaded_data_stream::can_open(const char* path) {
    const int fd = ::open(path, O_RDWR | O_NOCTTY | O_NONBLOCK);
    return fd >= 0 && ::close(fd) == 0;
}

bool Posix_threaded_data_stream::open(const char* path, bool create, bool append) {
    close();
    const int fd = Posix_data_stream::open_descriptor(path, O_RDWR | O_NOCTTY, create, true, append);
    if (fd < 0) {
        if (_open_failure_fatal) exit(-1);
        return false;
    }
    if (!start()) {
        ::close(fd);
        return false;
    }
    // Opened blocking, to wait for the carrier where the line asks for it. From here on nothing may block with a lock
    // held, not even when another process snatches the bytes that poll() announced.
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    {
        const Scoped_lock held(_mutex);
        const Scoped_lock descriptor_held(_descriptor_lock);
        _fd = fd;
        ++_epoch;
        line_back();
    }
    set_name("DSPosT(%p, %s)", static_cast<void*>(this), path);
    wake_reader();
    return true;
}

bool Posix_threaded_data_stream::close() {
    int fd;
    {
        const Scoped_lock held(_descriptor_lock);
        fd = _fd.exchange(-1);
        ++_epoch;
    }
    if (fd < 0) return false;
    wake_reader(); // while it polls the descriptor, the system would keep the device open
    ::close(fd);
    set_name("DSPosT(%p)", static_cast<void*>(this));
    return true;
}

bool Posix_threaded_data_stream::start() {
    if (_wake_fd >= 0) return true;
    _wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (_wake_fd < 0) return false;
    if (_reader->start(reader_priority, run, this) == 0) return true;
    ::close(_wake_fd);
    _wake_fd = -1;
    return false;
}

bool Posix_threaded_data_stream::init_commander(Commander& c) const {
    c._fd = descriptor();
    return c._fd >= 0;
}

bool Posix_threaded_data_stream::get_data(int n) { return n == 0; }

unsigned int Posix_threaded_data_stream::_write(const unsigned char* data, unsigned int n) {
    unsigned done = 0;
    uint32_t epoch = 0;
    for (bool first = true;; first = false) {
        struct pollfd room = {-1, POLLOUT, 0};
        ssize_t put = -1;
        bool is_full = false;
        {
            const Scoped_lock held(_descriptor_lock);
            if (first) epoch = _epoch;
            if (epoch == _epoch) room.fd = descriptor(); // the rest is not for a line that was opened meanwhile
            if (room.fd >= 0) put = ::write(room.fd, data + done, n - done);
            is_full = room.fd >= 0 && put < 0 && errno == EAGAIN;
        }
        if (put > 0) {
            const Scoped_lock held(_mutex);
            bytes_written += static_cast<uint32_t>(put);
        }
        if (is_full) {
            poll(&room, 1, room_wait_ms);
            continue;
        }
        if (put > 0) done += static_cast<unsigned>(put);
        if (put <= 0 || done == n) return put < 0 && done == 0 ? failed : done;
    }
}

void* Posix_threaded_data_stream::run(void* stream) {
    static_cast<Posix_threaded_data_stream*>(stream)->read_until_stopped();
    return nullptr;
}

void Posix_threaded_data_stream::read_until_stopped() {
    for (;;) {
        struct pollfd waits[2] = {{_wake_fd, POLLIN, 0}, {-1, POLLIN, 0}};
        uint32_t epoch;
        {
            const Scoped_lock held(_descriptor_lock);
            if (_stop) return;
            waits[1].fd = descriptor(); // poll() passes over one that is closed
            epoch = _epoch;
        }
        if (poll(waits, 2, -1) <= 0) continue;
        if (waits[0].revents) { // opened, closed or to be stopped: look again
            eventfd_t count;
            eventfd_read(_wake_fd, &count);
            continue;
        }
        // Nothing came although poll() said so: a line that is lost says so for ever.
        if (!take_bytes(epoch, waits[1].revents & (POLLHUP | POLLERR))) poll(waits, 1, retry_ms);
    }
}

/// Move what is there into the buffer and notify the waiters; false when there was nothing. Does nothing when the
/// stream was closed since `epoch`: the number of the descriptor may be somebody else's now.
bool Posix_threaded_data_stream::take_bytes(uint32_t epoch, bool hung_up) {
    const Scoped_lock held(_mutex);
    const Scoped_lock descriptor_held(_descriptor_lock);
    if (epoch != _epoch) return true;
    unsigned char piece[256];
    const ssize_t got = ::read(descriptor(), piece, sizeof piece);
    if (got <= 0) {
        // An end of file alone is no hang-up: a file may grow.
        if (got < 0 ? errno == EIO : hung_up) line_lost();
        return false;
    }
    const auto arrived = static_cast<uint32_t>(got);
    bytes_read += arrived;
    const uint32_t lost = arrived - buffer.put(piece, arrived);
    bytes_lost += lost;
    trace_bytes(*this, arrived, lost);
    line_back();
    _waiters.send(waiter_event(_waiters.module_id(), event_data, 0), waiter_descriptor::merge_duplicates);
    return true;
}

void Posix_threaded_data_stream::line_lost() {
    if (_line_is_lost) return;
    _line_is_lost = true;
    _hang_ups.fetch_add(1, std::memory_order_relaxed);
    _line_waiters.send(waiter_event(_waiters.module_id(), event_line_lost, 0), waiter_descriptor::merge_duplicates);
}

void Posix_threaded_data_stream::line_back() {
    if (!_line_is_lost) return;
    _line_is_lost = false;
    _line_waiters.send(waiter_event(_waiters.module_id(), event_line_back, 0), waiter_descriptor::merge_duplicates);
}

void Posix_threaded_data_stream::wake_reader() const {
    if (_wake_fd >= 0) eventfd_write(_wake_fd, 1);
}
