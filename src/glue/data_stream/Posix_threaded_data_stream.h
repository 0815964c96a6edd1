// SPDX-License-Identifier: MIT
#pragma once
#include "glue/data_stream/Data_stream.h"
#include "glue/data_stream/Posix_data_stream.h"
#include "glue/diner/waiter_list.h"
#include "util/Mutex.h"
#include "util/api.h"
#include <atomic>

class Task;

/// A stream whose own thread reads the descriptor into the receive buffer and wakes the diners that registered:
///
///     device -> reader thread -> [ receive buffer, 4200 bytes ] -> the diner that was woken
///
/// Diners register once the module id is there (init) and before the stream is opened: what comes earlier wakes nobody
/// and waits for the bytes behind it. They take what is buffered when woken, and never wait for bytes. What does not
/// fit into the buffer is lost and counted in `bytes_lost`.
///
/// When the other side hangs up, the reader looks every 250 ms whether bytes come again. A waiter that asked for it is
/// notified; close() and open() get a device that was plugged in again.
///
/// Threads: any thread registers waiters; one reads, one writes, one opens and closes, and these may be different ones.
/// A write while the stream is closed fails. Nobody writes, opens or closes with `stream_lock` held.
class KAV_API Posix_threaded_data_stream : public Data_stream {
public:
    /// Event ids of the stream's module.
    enum Event {
        event_data = 0,      ///< bytes arrived
        event_line_lost = 1, ///< the other side hung up, or the device is gone
        event_line_back = 2  ///< after that: bytes came again, or the stream was opened again
    };
    static constexpr int retry_ms = 250; ///< [ms] between attempts on a descriptor that yields nothing

    using Commander = Posix_data_stream::Commander;

    Posix_threaded_data_stream();
    /// Ends the reader thread and closes. Waiters may still be registered; they are not notified.
    ~Posix_threaded_data_stream() override;

    /// Obtain the module id of the events, once; before that they carry 0 and are not merged. Ends the process with
    /// exit(-132) when there is none left.
    void init(module_man& mm);

    /// Open for reading and writing and start the reader. What was open is closed first. A failure is reported on
    /// standard error and ends the process with exit(-1), unless set_open_failure_fatal(false). False when that was
    /// called, or when there is no reader thread to be had; the stream is closed then. A terminal does not become the
    /// controlling one: its hang-up would kill the process.
    bool open(const char* path, bool create, bool append);
    /// Whether open() shall end the process when it fails: true at first, for applications that are nothing without the
    /// device. False for those that wait until it is plugged in.
    void set_open_failure_fatal(bool fatal) { _open_failure_fatal = fatal; }
    /// True when `path` can be opened for reading and writing now; else errno tells why. For a clear message
    /// beforehand: a moment later it may be otherwise. A modem line may twitch.
    static bool can_open(const char* path);
    /// Close; true when something was open. The reader rests until the next open(); from now on it touches neither the
    /// descriptor nor one that gets the same number. What is buffered stays.
    bool close();
    /// Start the reader if it does not run yet: there is one for the life of the stream. False when the system has no
    /// thread to give. open() does it.
    bool start();

    /// Who is notified that bytes arrived. At most 16, not owned; deregistered before they die. 0, or -1 when full,
    /// null or already there (not there).
    int register_waiter(waiter_descriptor* w) { return _waiters.add(w); }
    int deregister_waiter(waiter_descriptor* w) { return _waiters.remove(w); }
    /// Who is notified that the line is lost or back; the same rules, and independent of register_waiter().
    int register_line_waiter(waiter_descriptor* w) { return _line_waiters.add(w); }
    int deregister_line_waiter(waiter_descriptor* w) { return _line_waiters.remove(w); }
    /// How often the line was lost so far. Any thread, no lock.
    uint32_t hang_ups() const { return _hang_ups.load(std::memory_order_relaxed); }
    /// Of the events; 0 before init(). Any thread, no lock.
    short module_id() const { return _waiters.module_id(); }

    /// Aim `c` at the open descriptor; false when closed.
    bool init_commander(Commander& c) const;

    using Data_stream::get_data;
    bool get_data(int n) override; ///< fetches nothing: true for 0 only
    /// Write all; waits for room without limit. The count written, which is short only when the line fails or is closed
    /// meanwhile; -1 when nothing could be written.
    unsigned int _write(const unsigned char* data, unsigned int n) override;

protected:
    int descriptor() const { return _fd.load(std::memory_order_relaxed); } ///< -1 when closed

private:
    static void* run(void* stream);
    void read_until_stopped();
    bool take_bytes(uint32_t epoch, bool hung_up);
    void line_lost() KAV_REQUIRES(_mutex);
    void line_back() KAV_REQUIRES(_mutex);
    void wake_reader() const;

    waiter_list _waiters{_mutex};
    std::atomic<int> _fd{-1};
    Task* const _reader; ///< owned
    /// The stream lock: guards the receive buffer, too.
    Mutex _mutex;
    /// Guards the descriptor against being closed, and its number being used again, between a look at it and a read or
    /// write. Descriptors do not block, so it is never held for long.
    Mutex _descriptor_lock KAV_ACQUIRED_AFTER(_mutex);

    waiter_list _line_waiters{_mutex};
    std::atomic<uint32_t> _hang_ups{0};
    bool _line_is_lost KAV_GUARDED_BY(_mutex) = false;
    uint32_t _epoch KAV_GUARDED_BY(_descriptor_lock) = 0; ///< counts openings and closings
    bool _stop KAV_GUARDED_BY(_descriptor_lock) = false;
    int _wake_fd = -1; ///< wakes the reader; set before it starts
    bool _open_failure_fatal = true;
};
