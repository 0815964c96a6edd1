// SPDX-License-Identifier: MIT
#pragma once
#include "glue/data_stream/Data_stream.h"
#include "glue/diner/waiter_ref.h"
#include "glue/diner/waiter_sleeper.h"
#include "util/api.h"
#include <atomic>
#include <cstdint>

class module_man;

/// A stream whose descriptor the diner that uses it polls itself, beside its events: one thread for line and handler.
/// Where Posix_threaded_data_stream has a reader thread wake the diner, here the line does: a switch between threads
/// less for what comes, no second stack, and no lock on the receive buffer. In return bytes are only taken when the
/// diner does not run a handler: what comes meanwhile waits in the system, which holds 4 KB of a serial line.
///
///     line.init(modules);
///     line.attach(&waiter); // before the diner is started
///     line.open_fd(fd);
///
/// Events are those of a threaded stream, to this one diner. One such stream for a diner. What does not fit into the
/// 4200 bytes of the buffer is lost and counted in `bytes_lost`.
///
/// Threads: everything, writing too, on the diner's thread, that is in its handlers, or while the diner is parked and
/// nobody starts it. There is no lock. hang_ups(): any thread.
class KAV_API Posix_polled_data_stream : public Data_stream, private waiter_sleeper {
public:
    /// Event ids of the stream's module.
    enum Event {
        event_data = 0,      ///< bytes arrived
        event_line_lost = 1, ///< the other side hung up, or the device is gone
        event_line_back = 2  ///< after that: bytes came again, or the stream was opened again
    };
    static constexpr int retry_ms = 250; ///< [ms] between attempts on a descriptor that yields nothing

    Posix_polled_data_stream();
    ~Posix_polled_data_stream() override; ///< detaches and closes

    /// Obtain the module id of the events, once; before that they carry 0. Ends the process with exit(-132) when there
    /// is none left.
    void init(module_man& mm);
    short module_id() const { return _module_id; }
    /// The waiter of the diner that polls from now on, in place of the one before; null: nobody. Both diners are
    /// parked, or it is their handler that calls. False when the system has no descriptor left for it; nobody polls
    /// then.
    bool attach(waiter_descriptor* w);

    /// Open for reading and writing; what was open is closed first. False, with a line on standard error, when the
    /// system refuses. A terminal does not become the controlling one.
    bool open(const char* path);
    /// Take over an open descriptor, made not to block from now on: of a socket, a pipe, a line.
    bool open_fd(int fd);
    bool close(); ///< true when something was open; what is buffered stays
    /// How often the line was lost so far.
    uint32_t hang_ups() const { return _hang_ups.load(std::memory_order_relaxed); }

    using Data_stream::get_data;
    bool get_data(int n) override; ///< fetches nothing: true for 0 only
    /// Write all; waits for room without limit, and so holds up the diner. The count written, which is short only when
    /// the line fails; -1 when nothing could be written.
    unsigned int _write(const unsigned char* data, unsigned int n) override;

protected:
    int descriptor() const { return _fd; } ///< -1 when closed

private:
    Result sleep(int ms) override;
    void wake() override;
    void look() override;
    bool resting();
    void rest(bool lost);
    void tell(Event e);

    waiter_ref<waiter_ref_base::stream> _waiter;
    short _module_id = 0;
    int _fd = -1;
    int _wake_fd = -1;   ///< one for the life of the stream
    bool _ready = false; ///< the last sleep() saw something at the descriptor
    bool _line_is_lost = false;
    uint64_t _rests_from = 0; ///< [ticks] since when nothing is expected for a while; 0: it is
    std::atomic<uint32_t> _hang_ups{0};
};
