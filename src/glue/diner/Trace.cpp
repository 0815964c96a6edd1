// SPDX-License-Identifier: MIT
#include "glue/diner/Trace.h"
#include "glue/diner/Trace_json.h"
#include "glue/diner/Trace_ring.h"
#include "util/Debug_print.h"
#include "util/assertion.h"
#include "util/ticks.h"
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <new>
#include <sys/syscall.h>
#include <unistd.h>

std::atomic<uint32_t> Trace::_kinds{0};

namespace {

/// Made at the first start and never freed: a thread may be recording whenever it is stopped.
std::atomic<Trace_ring*> the_ring{nullptr};

uint32_t own_thread() {
    thread_local uint32_t tid = 0;
    if (tid == 0) tid = static_cast<uint32_t>(syscall(SYS_gettid));
    return tid;
}

/// The file of at_abort(), and who is writing to it or setting its name. Fixed memory, for signal handlers.
constexpr size_t max_path = 255;
char dump_path[max_path + 1];
std::atomic_flag dumping = ATOMIC_FLAG_INIT;

constexpr int64_t abort_limit_ns = 2000000000;
constexpr uint64_t abort_records = 8192; ///< the last: the writing may be cut by its limit, and these tell most

int64_t monotonic_ns() {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return int64_t{t.tv_sec} * 1000000000 + t.tv_nsec;
}

/// A file as a sink. Nothing here waits but the medium itself, and nothing is more than a signal handler may do.
class Trace_file {
public:
    explicit Trace_file(const char* path, int64_t limit_ns = 0)
        : _fd(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK, 0644))
        , _deadline(limit_ns ? monotonic_ns() + limit_ns : INT64_MAX) {
        if (_fd < 0) _error = errno;
    }
    /// Write the trace: 0, else errno.
    int write(uint64_t last) {
        if (_fd < 0) return _error;
        Trace_json(put, this).write(the_ring.load(std::memory_order_acquire), last);
        if (close(_fd) != 0 && _error == 0) _error = errno;
        return _error;
    }

private:
    static bool put(void* to, const char* bytes, size_t n) {
        auto& file = *static_cast<Trace_file*>(to);
        while (n > 0) {
            if (monotonic_ns() > file._deadline) {
                file._error = ETIME;
                return false;
            }
            const ssize_t written = ::write(file._fd, bytes, n);
            if (written < 0 && errno == EINTR) continue;
            if (written <= 0) {
                file._error = written < 0 ? errno : EIO;
                return false;
            }
            bytes += written;
            n -= static_cast<size_t>(written);
        }
        return true;
    }

    const int _fd;
    const int64_t _deadline;
    int _error = 0;
};

int dump(uint64_t last, int64_t limit_ns) {
    if (dumping.test_and_set(std::memory_order_acquire)) return EBUSY;
    const int error = dump_path[0] ? Trace_file(dump_path, limit_ns).write(last) : ENOENT;
    dumping.clear(std::memory_order_release);
    return error;
}

/// Of another thread that writes just now the process would leave half a file.
void dump_at_abort() {
    const int64_t end = monotonic_ns() + abort_limit_ns;
    for (int64_t left = abort_limit_ns; left > 0 && dump(abort_records, left) == EBUSY; left = end - monotonic_ns()) {
        const struct timespec pause = {0, 1000000};
        nanosleep(&pause, nullptr);
    }
}

void dump_on_signal(int) {
    const int error = errno;
    dump(UINT64_MAX, 0);
    errno = error;
}

} // namespace

bool Trace::start(unsigned records, uint32_t kinds) {
    Trace_ring* ring = the_ring.load(std::memory_order_acquire);
    if (!ring) {
        auto* const made = Trace_ring::make(std::clamp(records, least_records, most_records));
        if (!made) return false;
        if (the_ring.compare_exchange_strong(ring, made, std::memory_order_acq_rel)) {
            ring = made;
        } else {
            delete made; // another thread was faster
        }
    }
    ring->forget();
    set_kinds(kinds);
    return true;
}

void Trace::stop() { set_kinds(0); }

void Trace::set_kinds(uint32_t kinds) {
    if (the_ring.load(std::memory_order_acquire)) _kinds.store(kinds & all_kinds, std::memory_order_relaxed);
}

bool Trace::set_diner(const char* name, bool on) { return Trace_names::get().let_in(name, on); }

void Trace::put(Kind k, unsigned diner, uint32_t small, uint64_t large) {
    Trace_ring* const ring = the_ring.load(std::memory_order_acquire);
    if (ring && Trace_names::get().let_in(diner))
        ring->put({Util::ticks(), large, own_thread(), small, static_cast<uint16_t>(diner), k});
}

uint64_t Trace::short_name(const char* name) {
    char last[8] = {};
    const size_t length = strlen(name);
    const size_t n = std::min(length, sizeof last);
    memcpy(last, name + length - n, n);
    uint64_t packed;
    memcpy(&packed, last, sizeof packed);
    return packed;
}

unsigned Trace::number_of(const char* name, int id) { return Trace_names::get().number_of(name, id); }

void Trace::on_thread_of(unsigned diner) { Trace_names::get().set_thread(diner, own_thread()); }

bool Trace::write(Sink sink, void* to) {
    return Trace_json(sink, to).write(the_ring.load(std::memory_order_acquire), UINT64_MAX);
}

int Trace::write_file(const char* path) {
    const int error = Trace_file(path).write(UINT64_MAX);
    if (error) Debug_print::bprint("Trace: cannot write %s: %s\n", path, strerror(error));
    return error;
}

bool Trace::at_abort(const char* path) {
    const size_t length = path ? strlen(path) : 0;
    if (length > max_path) return false;
    while (dumping.test_and_set(std::memory_order_acquire)) { // another thread writes to the file
        const struct timespec pause = {0, 1000000};
        nanosleep(&pause, nullptr);
    }
    if (length) memcpy(dump_path, path, length);
    dump_path[length] = 0;
    Trace_names::get(); // made now: an end may come where nothing can be
    dumping.clear(std::memory_order_release);
    Util::set_last_act(length ? dump_at_abort : nullptr);
    return true;
}

int Trace::write_now() { return dump(UINT64_MAX, 0); }

bool Trace::write_on_signal(int signal) {
    struct sigaction action = {};
    action.sa_handler = dump_on_signal;
    action.sa_flags = SA_RESTART;
    Trace_names::get(); // made now: the handler cannot
    return sigaction(signal, &action, nullptr) == 0;
}

Trace::Counts Trace::counts() {
    const Trace_ring* ring = the_ring.load(std::memory_order_acquire);
    return ring ? ring->counts() : Counts();
}
