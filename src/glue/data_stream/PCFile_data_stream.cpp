// SPDX-License-Identifier: MIT
#include "glue/data_stream/PCFile_data_stream.h"
#include "util/Debug_print.h"
#include "util/assertion.h"
#include "util/atime.h"
#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int busy_wait_ms = 100;
constexpr int copy_attempts = 6;
constexpr int read_chunk = 32;  // [bytes]
constexpr int copy_chunk = 500; // [bytes]
/// [bytes] A write that does not fit into more than this much free space means that the count of free bytes is wrong.
constexpr unsigned int max_left_when_full = 10;

constexpr int for_reading = 0; // what the store's functions take as their last argument
constexpr int for_writing = -1;

/// Where an attempt to open for writing ended; field reports quote these numbers.
enum Step {
    step_already_open = 202,
    step_not_mounted = 207,
    step_full = 216,
    step_no_attempt = 221,
    step_open = 227,
    step_create = 236
};

void print_failure(int step) { Debug_print::dprint("PCF Datastream Failed %i\n", step); }

/// Open `path` for writing, at its end or new; 0 done.
int open_for_writing(const char* path, int& step) {
    const bool there = pcfExists(path) != 0;
    step = there ? step_open : step_create;
    return there ? pcfOpenWrite(path, for_writing) : pcfCreateWrite(path, for_writing);
}

} // namespace

// Never destroyed: a stream may be a static of the application.
Mutex& PCFile_data_stream::mutex = *new Mutex;
waiter_list& PCFile_data_stream::waiters = *new waiter_list(mutex);
PcfInfo PCFile_data_stream::pcf_info = {0, 0};

PCFile_data_stream::PCFile_data_stream() { set_name("DSPCF(%p)", static_cast<void*>(this)); }

PCFile_data_stream::~PCFile_data_stream() {
    if (!_read_open && !_write_open) return;
    Debug_print::try_print(_read_open ? "Destruct while files are read open!!"
                                      : "Destruct while files are write open!!");
    exit(-155);
}

// ---- the class

bool PCFile_data_stream::static_init(module_man& mm) {
    const Scoped_lock held(mutex);
    if (waiters.init(mm) == 0) return true;
    Debug_print::dprint("PCF Datastream has no module id\n");
    return false;
}

/// send_event() for callers that hold the lock.
void PCFile_data_stream::deliver(events_t e) {
    waiters.send(waiter_event(waiters.module_id(), e, 0), waiter_descriptor::merge_duplicates);
}

void PCFile_data_stream::send_event(events_t e) {
    const Scoped_lock held(mutex);
    deliver(e);
}

bool PCFile_data_stream::is_event(waiter_event const& e) {
    return e.module_id != 0 && e.module_id == waiters.module_id();
}

bool PCFile_data_stream::mounted() { return pcfIsMounted() != 0; }

bool PCFile_data_stream::exists(const char* path) {
    if (mounted()) return pcfExists(path) != 0;
    Debug_print::dprint("PCF Datastream Failed %i (%s)\n", 192, path);
    return false;
}

bool PCFile_data_stream::remove(const char* path) { return pcfRemove(path) == PCF_DONE; }

bool PCFile_data_stream::get_free_space(unsigned int& used, unsigned int& size) {
    const Scoped_lock held(mutex);
    used = size = 0;
    if (!pcfInfo(&pcf_info)) return false;
    used = pcf_info.size - pcf_info.free_bytes;
    size = pcf_info.size;
    return true;
}

// ---- open and close

int PCFile_data_stream::open_read(const char* path, int retries) {
    _bytes_since_open = 0;
    if (_read_open) return wrong_state;
    if (!mounted() || !pcfExists(path)) return not_mounted;
    for (int attempt = 0; retries == 0 || attempt < retries; ++attempt) {
        const int result = pcfOpenRead(path, 0, for_reading);
        if (result == PCF_BUSY) {
            Atime::delay(busy_wait_ms);
            continue;
        }
        _read_open = result == PCF_DONE;
        set_name("DSPCF(%p, %s, r)", static_cast<void*>(this), path);
        return result;
    }
    return wrong_state;
}

int PCFile_data_stream::open_write(const char* path, int retries) {
    if (_write_open) {
        print_failure(step_already_open);
        return wrong_state;
    }
    if (!mounted()) {
        print_failure(step_not_mounted);
        return not_mounted;
    }
    unsigned int used, size;
    if (!get_free_space(used, size) || used == size) {
        Debug_print::dprint("PCF Datastream Failed %i (%s %u %u)\n", step_full, path, used, size);
        send_event(event_full);
        return wrong_state;
    }
    int step = step_no_attempt;
    for (int attempt = 0; attempt < retries; ++attempt) {
        if (open_for_writing(path, step) == PCF_DONE) {
            _write_open = true;
            set_name("DSPCF(%p, %s, w)", static_cast<void*>(this), path);
            return done;
        }
        Atime::delay(busy_wait_ms);
    }
    print_failure(step);
    return gave_up;
}

int PCFile_data_stream::close_read() {
    set_name("DSPCF(%p)", static_cast<void*>(this));
    if (!_read_open) return wrong_state;
    _read_open = false;
    return pcfCloseRead(for_reading);
}

int PCFile_data_stream::close_write() {
    set_name("DSPCF(%p)", static_cast<void*>(this));
    if (!_write_open) {
        Debug_print::dprint("PCF not open\n");
        return wrong_state;
    }
    _write_open = false;
    if (pcfCloseWrite(for_writing)) return done;
    Debug_print::dprint("PCF failed to close\n");
    return wrong_state;
}

// ---- transfer

bool PCFile_data_stream::get_data(int n) {
    while (n > 0) {
        unsigned char bytes[read_chunk];
        PcfResult result = PCF_NOTHING;
        const int count = pcfRead(bytes, std::min(n, read_chunk), &result, for_reading);
        if (result != PCF_DONE || count < 1) return false;
        _bytes_since_open += static_cast<uint32_t>(count);
        bytes_read += static_cast<uint32_t>(count);
        buffer.put(bytes, static_cast<uint32_t>(count));
        n -= count;
    }
    return true;
}

unsigned int PCFile_data_stream::_write(const unsigned char* data, unsigned int n) {
    constexpr unsigned int refused = static_cast<unsigned int>(-4);
    const Scoped_lock held(mutex);
    if (!_write_open) return refused;
    if (n > pcf_info.free_bytes) {
        deliver(event_full);
        Debug_print::try_print("PCF full\n");
        close_write();
        if (pcf_info.free_bytes > max_left_when_full) Util::flush_and_abort();
        return refused;
    }
    const int written = n <= INT_MAX ? pcfWrite(data, static_cast<int>(n), for_writing) : -1;
    if (written == static_cast<int>(n)) {
        pcf_info.free_bytes -= n;
        bytes_written += n;
    } else {
        Debug_print::dprint("PCF did not write %d!=%d\n", static_cast<int>(n), written);
        close_write();
        deliver(event_write_failed);
    }
    return static_cast<unsigned int>(written);
}

// ---- copy

namespace {

/// Read up to a chunk at `offset`: the count, 0 at the end of the file; -1 when it cannot be opened or read.
int read_piece(const char* from, unsigned int offset, unsigned char* bytes) {
    PcfResult opened = PCF_BUSY;
    for (int attempt = 0; attempt < copy_attempts && opened == PCF_BUSY; ++attempt) {
        opened = pcfOpenRead(from, offset, for_reading);
        if (opened == PCF_BUSY) Atime::delay(busy_wait_ms);
    }
    if (opened != PCF_DONE) return -1;
    PcfResult result = PCF_NOTHING;
    const int count = pcfRead(bytes, copy_chunk, &result, for_reading);
    pcfCloseRead(for_reading);
    return result == PCF_DONE ? count : -1;
}

/// Append a chunk; false when it could not all be written.
bool append_piece(const char* to, const unsigned char* bytes, int count) {
    for (int attempt = 0; attempt < copy_attempts; ++attempt) {
        int step;
        if (open_for_writing(to, step) != PCF_DONE) {
            Atime::delay(busy_wait_ms);
            continue;
        }
        const int written = pcfWrite(bytes, count, for_writing);
        pcfCloseWrite(for_writing);
        return written >= count;
    }
    return false;
}

} // namespace

bool PCFile_data_stream::copy(const char* to, const char* from) {
    if (!mounted() || !pcfExists(from)) return false;
    if (pcfExists(to)) pcfRemove(to);
    pcfRemove(to); // once more, whatever the store answered: what follows would append to it
    for (unsigned int offset = 0;;) {
        unsigned char bytes[copy_chunk];
        const int count = read_piece(from, offset, bytes);
        if (count < 0) return false;
        if (count == 0) return offset != 0;
        unsigned int used, size;
        if (!get_free_space(used, size) || size - used < static_cast<unsigned int>(count)) break;
        if (!append_piece(to, bytes, count)) return false;
        offset += static_cast<unsigned int>(count);
    }
    send_event(event_full);
    return true;
}

// ---- iterator

PCFile_data_stream::Iterator::Iterator() {
    if (!mounted()) Debug_print::dprint("PCF cannot iterate\n");
    reset();
}

void PCFile_data_stream::Iterator::reset() {
    _index = 0;
    _count = pcfGetNumFiles();
}

unsigned int PCFile_data_stream::Iterator::next() {
    if (_index < _count) ++_index;
    return _index;
}

const char* PCFile_data_stream::Iterator::get_name() {
    if (_index >= _count) return nullptr;
    // A store whose names are longer than they should be must not write past ours.
    char found[256] = {};
    if (!pcfGetFileName(_index, found)) {
        Debug_print::dprint("PCF broken file\n");
        return nullptr;
    }
    memcpy(_name, found, sizeof _name);
    _name[sizeof _name - 1] = 0;
    return _name;
}
