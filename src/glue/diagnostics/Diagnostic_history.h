// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diner/Timeout.h"
#include "util/api.h"
#include "util/atime.h"
#include <atomic>

/// A sink that asks the diagnostics manager for a replay of the error history and is handed the records one by one, on
/// the manager's thread with the manager's lock held: none of its operations may call a locking operation of the
/// manager. It lives until history_finished() is called.
class KAV_API Diagnostic_history {
public:
    Diagnostic_history();
    virtual ~Diagnostic_history();

    // Slot order is part of the interface.

    /// One record that passed the filter. `ms` comes in steps of 4.
    virtual void output(unsigned char src, unsigned short a, unsigned short b, unsigned int time,
                        unsigned short ms) = 0;
    /// Whether it can take another record now; while not, the replay pauses and asks again 100 ms later. Here: once the
    /// clock has moved on since construction, so a clock set back stalls the replay until it has caught up.
    virtual bool check_ready();
    virtual void history_finished(); ///< the replay is complete; the last that the manager asks of the sink
    virtual void history_started();  ///< the replay was accepted

    /// Which records are wanted: source and second error word (0: any), and from <= time < to [s]. At first everything.
    void set_filter(unsigned char src, unsigned short err, unsigned int from, unsigned int to);
    /// Hand on to output() what passes the filter.
    void _output(unsigned char src, unsigned short a, unsigned short b, unsigned int time, unsigned short ms);
    /// The replay is complete, and history_finished() called or about to be; any thread.
    bool is_done() const { return _done; }

protected:
    friend class Diagnostics;

    Atime time;      ///< of construction
    Timeout timeout; ///< the manager resumes the replay by it
    unsigned char _filter_source = 0;
    unsigned short _filter_error = 0;
    unsigned int _filter_from = 0;
    unsigned int _filter_to = 0xFFFFFFFF;
    std::atomic<bool> _done{false};
    int _end_file = 0;
    int _start_file = 0;
    int _records_done = 0; ///< of the current file
};

/// Prints each record as "ERR,source,second word,first word,seconds.millis" on the debug output.
class KAV_API Debug_print_diagnostic_history : public Diagnostic_history {
public:
    void output(unsigned char src, unsigned short a, unsigned short b, unsigned int time, unsigned short ms) override;
};
